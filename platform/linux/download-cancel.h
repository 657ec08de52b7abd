#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace quillon {

/// Tells a running download, from another thread, that it shall end. Thread: any.
class DownloadCancel
{
public:
    void request()
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        requested_ = true;
        changed_.notify_all();
    }

    bool requested() const
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return requested_;
    }

    /// Waits for that time, or less when the request comes.
    /// @return requested()
    bool waitFor(std::chrono::seconds time)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, time, [this] { return requested_; });
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    bool requested_ = false;
};

}  // namespace quillon
