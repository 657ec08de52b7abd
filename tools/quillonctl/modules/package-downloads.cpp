#include "tools/quillonctl/modules/package-downloads.h"

#include <condition_variable>
#include <memory>
#include <mutex>

#include "platform/app-binary-manager.h"

namespace quillon {

namespace {

struct Download
{
    std::mutex mutex;
    std::condition_variable ended;
    bool hasEnded = false;
    int status = 0;
};

void end(const std::string& /*identifier*/, int status, void* user)
{
    auto* download = static_cast<Download*>(user);
    // Under the lock, since the waiting thread destroys the download once it has seen its end.
    const std::lock_guard<std::mutex> lock(download->mutex);
    download->status = status;
    download->hasEnded = true;
    download->ended.notify_one();
}

int waitFor(Download& download)
{
    std::unique_lock<std::mutex> lock(download.mutex);
    download.ended.wait(lock, [&] { return download.hasEnded; });
    return download.status;
}

}  // namespace

std::vector<std::optional<int>> downloadPackages(const std::vector<std::string>& packages)
{
    std::vector<std::unique_ptr<Download>> downloads;
    for (const std::string& package : packages) {
        auto download = std::make_unique<Download>();
        if (!appbinaryManager::ABM_DownloadAppBinary(end, download.get(), package)) {
            download.reset();
        }
        downloads.push_back(std::move(download));
    }
    std::vector<std::optional<int>> statuses;
    statuses.reserve(downloads.size());
    for (const auto& download : downloads) {
        statuses.push_back(download ? std::optional<int>(waitFor(*download)) : std::nullopt);
    }
    return statuses;
}

}  // namespace quillon
