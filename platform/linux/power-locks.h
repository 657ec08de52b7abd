#ifndef QUILLON_PLATFORM_LINUX_POWER_LOCKS_H
#define QUILLON_PLATFORM_LINUX_POWER_LOCKS_H

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

#include "platform/linux/inhibitor.h"

namespace quillon {

/// The power locks that are held, at most one a type. Each ends with its time; a thread that sees
/// to it runs only while a lock is held. Thread: any.
class PowerLocks
{
public:
    PowerLocks() = default;
    ~PowerLocks();
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
        std::chrono::steady_clock::time_point end;
    };

    void startTimer();
    void watchTime();
    void dropEnded();

    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<int, Lock> locks_;
    bool timerRuns_ = false;
    std::thread timer_;
};

}  // namespace quillon

#endif
