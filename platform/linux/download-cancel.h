#pragma once

#include <chrono>
#include <future>

namespace quillon {

/// Tells a running download, from another thread, that it shall end. Thread: any.
class DownloadCancel
{
public:
    /// To be called once.
    void request() { request_.set_value(); }
    bool requested() const { return waitFor(std::chrono::seconds::zero()); }

    /// Waits for that time, or less when the request comes.
    /// @return requested()
    bool waitFor(std::chrono::seconds time) const
    {
        return requested_.wait_for(time) == std::future_status::ready;
    }

private:
    std::promise<void> request_;
    const std::future<void> requested_ = request_.get_future();
};

}  // namespace quillon
