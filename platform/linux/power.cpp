#include "platform/power.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "base/signals-blocked.h"
#include "platform/linux/inhibitor.h"
#include "platform/log/platform-log.h"

namespace quillon {
namespace {

using std::chrono::steady_clock;

/// The power locks that are held, at most one a type. Each ends with its time; a thread that sees
/// to it runs only while a lock is held. The one object is never destroyed: the end of the process
/// gives the locks back, and a forked child has no thread to wait for. Thread: any.
class PowerLocks
{
public:
    PowerLocks() = default;
    ~PowerLocks() = delete;
    PowerLocks(const PowerLocks&) = delete;
    PowerLocks& operator=(const PowerLocks&) = delete;

    /// Keeps the inhibitor for that time, and gives back the one that was held before.
    /// Throws std::bad_alloc, and std::system_error when no thread can be started; nothing has
    /// changed then, but the given inhibitor is gone.
    void hold(int type, Inhibitor inhibitor, std::chrono::milliseconds time);
    /// Gives back the inhibitor of that type if there is one.
    void release(int type);

private:
    struct Lock
    {
        Inhibitor inhibitor;
        steady_clock::time_point end;
    };

    void startTimer();
    void watchTime();
    void dropEnded();

    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<int, Lock> locks_;
    bool timerRuns_ = false;
};

void PowerLocks::hold(int type, Inhibitor inhibitor, std::chrono::milliseconds time)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    startTimer();
    Lock& held = locks_[type];
    held.inhibitor = std::move(inhibitor);
    held.end = steady_clock::now() + time;
    changed_.notify_all();
}

void PowerLocks::release(int type)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    locks_.erase(type);
    changed_.notify_all();
}

void PowerLocks::startTimer()
{
    if (timerRuns_) {
        return;
    }
    const SignalsBlocked blocked;
    std::thread(&PowerLocks::watchTime, this).detach();
    timerRuns_ = true;
}

void PowerLocks::watchTime()
{
    std::unique_lock<std::mutex> lock(mutex_);
    while (!locks_.empty()) {
        const auto soonest = std::min_element(
            locks_.begin(), locks_.end(),
            [](const auto& one, const auto& other) { return one.second.end < other.second.end; });
        const steady_clock::time_point end = soonest->second.end;  // the lock itself may go
        changed_.wait_until(lock, end);
        dropEnded();
    }
    timerRuns_ = false;
}

void PowerLocks::dropEnded()
{
    const steady_clock::time_point now = steady_clock::now();
    for (auto held = locks_.begin(); held != locks_.end();) {
        if (held->second.end > now) {
            ++held;
            continue;
        }
        PLATFORM_LOGI("the power lock %d was not given back in its time and has ended by itself",
                      held->first);
        held = locks_.erase(held);
    }
}

PowerLocks& powerLocks()
{
    static PowerLocks& locks = *new PowerLocks;
    return locks;
}

}  // namespace
}  // namespace quillon

int device_power_lock_state(int type, int timeout_ms)
{
    if (timeout_ms <= 0) {
        PLATFORM_LOGE("a power lock of %d ms is none", timeout_ms);
        return -1;
    }
    // The new inhibitor is there before the old one goes.
    std::optional<quillon::Inhibitor> inhibitor = quillon::takeInhibitor();
    if (!inhibitor) {
        return -1;
    }
    try {
        quillon::powerLocks().hold(type, std::move(*inhibitor),
                                   std::chrono::milliseconds(timeout_ms));
        return 0;
    } catch (const std::exception& error) {
        PLATFORM_LOGE("the power lock %d cannot be kept: %s", type, error.what());
        return -1;
    }
}

int device_power_unlock_state(int type)
{
    quillon::powerLocks().release(type);
    return 0;
}
