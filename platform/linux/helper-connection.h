#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>

#include "base/fd.h"

namespace quillon {

/// How long the calls of this process wait for one helper: half a minute, since a mount takes as
/// long as the device's storage does, and others may come first. But once a call has waited in
/// vain, the next ones wait for a second only, until one is answered: a check of many modules makes
/// two calls for each, and would stand still for minutes with a helper that is stopped. Thread:
/// any. Never throws.
class HelperPatience
{
public:
    using Duration = std::chrono::milliseconds;

    explicit HelperPatience(Duration full = std::chrono::seconds(30),
                            Duration rest = std::chrono::seconds(1))
        : full_(full), rest_(rest)
    {
    }

    Duration left() const { return isLost_ ? rest_ : full_; }
    void lose() { isLost_ = true; }
    void regain() { isLost_ = false; }

private:
    const Duration full_;
    const Duration rest_;
    std::atomic<bool> isLost_{false};
};

/// The client's end of a connection to a process of root's: one packet there, one back. Each call
/// of a thread makes its own, so that threads do not take each other's answers. All its steps
/// together take as long as the patience with the helper lasts when it is opened.
/// Thread: one object, one thread. Never throws.
class HelperConnection
{
public:
    /// @param patience  with this helper; outlives the connection
    explicit HelperConnection(HelperPatience& patience) : patience_(patience) {}

    /// @param path  of the helper's SOCK_SEQPACKET socket
    /// @return false with errno telling why
    bool open(const char* path);

    /// @return false with errno telling why
    bool send(const void* packet, std::size_t size);

    /// @param[out] packet  the answer, of at most size bytes
    /// @return the answer's size, at least 1; -1 with errno telling why: ETIMEDOUT, ECONNRESET when
    ///         the helper has ended the connection, EPROTO when there is more than size bytes
    ssize_t receive(void* packet, std::size_t size);

private:
    using Clock = std::chrono::steady_clock;

    bool limitWaiting(int option) const;
    template <typename Step>
    ssize_t beforeDeadline(int option, Step step);

    HelperPatience& patience_;
    Clock::time_point deadline_;
    UniqueFd socket_;
};

}  // namespace quillon
