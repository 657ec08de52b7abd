#include "platform/app-binary-manager.h"

#include "once.h"
#include "platform-log.h"

namespace appbinaryManager {

bool ABM_DownloadAppBinary(void (* /*callback*/)(const std::string& identifier, int status,
                                                 void* user_data),
                           void* /*user_data*/, const std::string& /*identifier*/)
{
    static quillon::Once said;
    if (said.first()) {
        PLATFORM_LOGI("there is no package download on this platform yet");
    }
    return false;
}

}  // namespace appbinaryManager
