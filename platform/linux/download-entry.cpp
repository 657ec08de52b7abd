#include "platform/linux/download-entry.h"

#include <unistd.h>

#include <exception>

#include "base/alphanumeric.h"
#include "platform/linux/download-queue.h"
#include "platform/linux/download-settings.h"
#include "platform/log/platform-log.h"

namespace {

constexpr std::size_t kLongestIdentifier = 127;

/// The queue, which ends with the process that made it. A forked child that ends leaves it alone:
/// it has no worker, and would wait for ever for the one that it saw waiting.
class OwnQueue
{
public:
    OwnQueue() = default;
    ~OwnQueue()
    {
        if (owner_ == getpid()) {
            delete queue_;
        }
    }
    OwnQueue(const OwnQueue&) = delete;
    OwnQueue& operator=(const OwnQueue&) = delete;

    quillon::DownloadQueue& get() const { return *queue_; }

private:
    const pid_t owner_ = getpid();
    quillon::DownloadQueue* const queue_ = new quillon::DownloadQueue;
};

quillon::DownloadQueue& downloads()
{
    static const OwnQueue queue;
    return queue.get();
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
