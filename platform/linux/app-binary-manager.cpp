#include "platform/app-binary-manager.h"

#include <dlfcn.h>

#include <atomic>

#include "base/once.h"
#include "platform/linux/download-entry.h"
#include "platform/log/platform-log.h"

namespace {

using Download = decltype(&quillon_download_package);

/// The library lies in the directory "quillon" beside this one, wherever that is.
/// @return null, logged once, when it is not there or cannot be loaded.
Download openDownload()
{
    Dl_info self = {};
    dladdr(reinterpret_cast<void*>(&appbinaryManager::ABM_DownloadAppBinary), &self);
    const std::string path = self.dli_fname != nullptr ? self.dli_fname : "";
    void* library = dlopen(
        (path.substr(0, path.rfind('/') + 1) + "quillon/libquillon-download.so").c_str(), RTLD_NOW);
    if (library == nullptr) {
        static quillon::Once said;
        if (said.first()) {
            PLATFORM_LOGI("there is no package download: %s", dlerror());
        }
        return nullptr;
    }
    return reinterpret_cast<Download>(dlsym(library, "quillon_download_package"));
}

}  // namespace

namespace appbinaryManager {

bool ABM_DownloadAppBinary(void (*callback)(const std::string& identifier, int status,
                                            void* user_data),
                           void* user_data, const std::string& identifier)
{
    static std::atomic<Download> download{nullptr};
    if (download == nullptr) {
        download = openDownload();
    }
    const Download found = download;
    return found != nullptr && found(callback, user_data, identifier);
}

}  // namespace appbinaryManager
