#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/download-cancel.h"
#include "platform/linux/download-settings.h"

namespace quillon {

/// Who is to be told the end of a download.
struct DownloadListener
{
    void (*callback)(const std::string& identifier, int status, void* userData) = nullptr;
    void* userData = nullptr;
};

/// The packages that are being downloaded, one after another on a thread of the queue.
///
/// When the queue goes, so does the running download, and nobody is told any more: what the process
/// leaves of it, a later process takes up.
class DownloadQueue
{
public:
    DownloadQueue();
    ~DownloadQueue();
    DownloadQueue(const DownloadQueue&) = delete;
    DownloadQueue& operator=(const DownloadQueue&) = delete;

    /// Adds a package, or a listener when the package is waiting or being fetched already; the
    /// settings of its first request count then.
    /// Thread: any. Throws std::bad_alloc, and std::system_error when no thread can be started.
    void add(const std::string& identifier, const DownloadSettings& settings,
             DownloadListener listener);

private:
    struct Request
    {
        std::string identifier;
        DownloadSettings settings;
        std::vector<DownloadListener> listeners;
    };

    void work();
    Request* next();
    void tellEnd(int status);

    std::mutex mutex_;
    std::condition_variable added_;
    std::deque<Request> requests_;  // the first one is being fetched
    DownloadCancel cancel_;
    std::thread worker_;
};

}  // namespace quillon
