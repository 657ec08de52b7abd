// Takes the place of app-binary-manager.cpp where libcurl was not there at build time.

#include "base/once.h"
#include "platform/app-binary-manager.h"
#include "platform/log/platform-log.h"

namespace appbinaryManager {

bool ABM_DownloadAppBinary(void (* /*callback*/)(const std::string& identifier, int status,
                                                 void* user_data),
                           void* /*user_data*/, const std::string& /*identifier*/)
{
    static quillon::Once said;
    if (said.first()) {
        PLATFORM_LOGI("this build has no package download");
    }
    return false;
}

}  // namespace appbinaryManager
