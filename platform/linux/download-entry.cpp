#include "platform/linux/download-entry.h"

#include <exception>

#include "base/alphanumeric.h"
#include "platform/linux/download-queue.h"
#include "platform/linux/download-settings.h"
#include "platform/log/platform-log.h"

namespace {

constexpr std::size_t kLongestIdentifier = 127;

quillon::DownloadQueue& downloads()
{
    static quillon::DownloadQueue queue;
    return queue;
}

}  // namespace

bool quillon_download_package(void (*callback)(const std::string& identifier, int status,
                                               void* user_data),
                              void* user_data, const std::string& identifier)
{
    if (!quillon::isAlphanumeric(identifier) || identifier.size() > kLongestIdentifier) {
        PLATFORM_LOGE("the identifier of a package is 1 to %zu letters and digits",
                      kLongestIdentifier);
        return false;
    }
    try {
        quillon::DownloadSettings settings;
        if (!quillon::readDownloadSettings(settings)) {
            return false;
        }
        downloads().add(identifier, settings, {callback, user_data});
        return true;
    } catch (const std::exception& error) {
        PLATFORM_LOGE("package %s cannot be downloaded: %s", identifier.c_str(), error.what());
        return false;
    }
}
