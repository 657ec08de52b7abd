#include "platform/app-binary-manager.h"

#include <dlfcn.h>

#include <atomic>
#include <exception>

#include "platform/linux/download-entry.h"
#include "platform/log/platform-log.h"

namespace {

using Download = decltype(&quillon_download_package);

/// Opens the library in the directory "quillon" beside this one, wherever that is.
/// @return null, logged once, when it is not there or cannot be loaded. Throws std::bad_alloc.
Download openDownload()
{
    // A function that this library exports may have its address in the program.
    Dl_info self = {};
    dladdr(reinterpret_cast<void*>(&openDownload), &self);
    const std::string path = self.dli_fname != nullptr ? self.dli_fname : "";
    const std::string place = path.substr(0, path.rfind('/') + 1);
    dlerror();
    void* library = dlopen((place + "quillon/libquillon-download.so").c_str(), RTLD_NOW);
    void* entry = library != nullptr ? dlsym(library, "quillon_download_package") : nullptr;
    static std::atomic_flag said = ATOMIC_FLAG_INIT;
    if (entry == nullptr && !said.test_and_set()) {
        const char* reason = dlerror();
        PLATFORM_LOGE("there is no package download: %s", reason != nullptr ? reason : "no entry");
    }
    return reinterpret_cast<Download>(entry);
}

}  // namespace

namespace appbinaryManager {

bool ABM_DownloadAppBinary(void (*callback)(const std::string& identifier, int status,
                                            void* user_data),
                           void* user_data, const std::string& identifier)
{
    static std::atomic<Download> download{nullptr};
    try {
        if (download == nullptr) {
            download = openDownload();
        }
        const Download found = download;
        return found != nullptr && found(callback, user_data, identifier);
    } catch (const std::exception& error) {
        PLATFORM_LOGE("package %s cannot be downloaded: %s", identifier.c_str(), error.what());
        return false;
    }
}

}  // namespace appbinaryManager
