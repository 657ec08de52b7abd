/// A point in time that waits end at.
#pragma once

#include <time.h>

#include <algorithm>
#include <chrono>

namespace quillon {

/// Counts on the monotonic clock. The queue calls know the time of day only; nextWait() gives them
/// short waits, so that setting the clock can spoil no more than one of them.
class Deadline
{
public:
    explicit Deadline(std::chrono::milliseconds fromNow) : end_(Clock::now() + fromNow) {}

    bool passed() const { return Clock::now() >= end_; }

    /// @return the time of day at which the next wait has to end: half a second ahead, or when
    ///         this deadline passes if that is sooner
    timespec nextWait() const
    {
        using std::chrono::nanoseconds;
        const nanoseconds rest = std::max<nanoseconds>(end_ - Clock::now(), nanoseconds::zero());
        const nanoseconds wait = std::min<nanoseconds>(rest, std::chrono::milliseconds(500));
        timespec time{};
        clock_gettime(CLOCK_REALTIME, &time);
        const long nanos = time.tv_nsec + static_cast<long>(wait.count());
        time.tv_sec += nanos / 1000000000;
        time.tv_nsec = nanos % 1000000000;
        return time;
    }

private:
    using Clock = std::chrono::steady_clock;
    Clock::time_point end_;
};

}  // namespace quillon
