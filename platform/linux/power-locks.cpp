#include "platform/linux/power-locks.h"

#include <algorithm>
#include <utility>

#include "base/signals-blocked.h"
#include "platform/log/platform-log.h"

namespace quillon {

using std::chrono::steady_clock;

PowerLocks::~PowerLocks()
{
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        locks_.clear();
    }
    changed_.notify_all();
    if (timer_.joinable()) {
        timer_.join();
    }
}

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
    if (timer_.joinable()) {
        timer_.join();  // it has said that it leaves and needs the mutex no more
    }
    const SignalsBlocked blocked;
    timer_ = std::thread(&PowerLocks::watchTime, this);
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

}  // namespace quillon
