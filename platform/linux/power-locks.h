#ifndef QUILLON_PLATFORM_LINUX_POWER_LOCKS_H
#define QUILLON_PLATFORM_LINUX_POWER_LOCKS_H

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

#include "files.h"

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

    /// Keeps the descriptor open for that time, and closes the one that was held before.
    /// Throws std::bad_alloc, and std::system_error when no thread can be started; nothing has
    /// changed then, but the given descriptor is closed.
    void hold(int type, UniqueFd inhibitor, std::chrono::milliseconds time);
    /// Closes the descriptor of that type if there is one.
    void release(int type);

private:
    struct Lock
    {
        UniqueFd inhibitor;
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
