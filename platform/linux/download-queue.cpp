#include "platform/linux/download-queue.h"

#include <curl/curl.h>

#include <algorithm>
#include <exception>
#include <utility>

#include "base/signals-blocked.h"
#include "platform/linux/package-download.h"
#include "platform/log/platform-log.h"

namespace quillon {

namespace {

void tell(const DownloadListener& listener, const std::string& identifier, int status)
{
    try {
        listener.callback(identifier, status, listener.userData);
    } catch (const std::exception& error) {
        PLATFORM_LOGE("package %s: whoever was told of its end threw: %s", identifier.c_str(),
                      error.what());
    } catch (...) {
        PLATFORM_LOGE("package %s: whoever was told of its end threw", identifier.c_str());
    }
}

}  // namespace

DownloadQueue::DownloadQueue()
{
    // Here, so that what the transfer library and its TLS library do at the end of the process
    // comes after the end of this queue.
    curl_global_init(CURL_GLOBAL_DEFAULT);
}

DownloadQueue::~DownloadQueue()
{
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        cancel_.request();
    }
    added_.notify_all();
    if (worker_.joinable()) {
        worker_.join();
    }
}

void DownloadQueue::add(const std::string& identifier, const DownloadSettings& settings,
                        DownloadListener listener)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!worker_.joinable()) {
        const SignalsBlocked blocked;
        worker_ = std::thread(&DownloadQueue::work, this);
    }
    auto request = std::find_if(requests_.begin(), requests_.end(), [&](const Request& waiting) {
        return waiting.identifier == identifier;
    });
    std::vector<DownloadListener> listeners;
    if (listener.callback != nullptr) {
        listeners.push_back(listener);
    }
    if (request == requests_.end()) {
        requests_.push_back({identifier, settings, std::move(listeners)});
        added_.notify_one();
    } else {
        request->listeners.insert(request->listeners.end(), listeners.begin(), listeners.end());
    }
}

void DownloadQueue::work()
{
    while (const Request* request = next()) {
        // Elements of a deque stay where they are while others are added behind them.
        const DownloadStatus status =
            downloadPackage(request->identifier, request->settings, cancel_);
        if (status == kCancelled) {
            return;
        }
        tellEnd(status);
    }
}

DownloadQueue::Request* DownloadQueue::next()
{
    std::unique_lock<std::mutex> lock(mutex_);
    added_.wait(lock, [this] { return cancel_.requested() || !requests_.empty(); });
    return cancel_.requested() ? nullptr : &requests_.front();
}

void DownloadQueue::tellEnd(int status)
{
    std::unique_lock<std::mutex> lock(mutex_);
    if (cancel_.requested()) {
        return;
    }
    const Request ended = std::move(requests_.front());
    requests_.pop_front();
    lock.unlock();
    for (const DownloadListener& listener : ended.listeners) {
        tell(listener, ended.identifier, status);
    }
}

}  // namespace quillon
