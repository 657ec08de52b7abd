// Takes the place of inhibitor.cpp where libsystemd was not there at build time.

#include "inhibitor.h"
#include "once.h"
#include "platform-log.h"

namespace quillon {

std::optional<Inhibitor> takeInhibitor()
{
    static Once said;
    if (said.first()) {
        PLATFORM_LOGI("this build has no power lock: updates run without one");
    }
    return std::nullopt;
}

}  // namespace quillon
