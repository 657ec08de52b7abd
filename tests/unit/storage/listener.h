#pragma once

#include <functional>
#include <thread>

#include "base/fd.h"

namespace quillon::test {

/// Listens at the storage helper's socket, as a service manager does, on a thread of its own.
class Listener
{
public:
    /// @param serve  is given each connection, one after another; it is closed afterwards
    using Serve = std::function<void(int connection)>;

    explicit Listener(Serve serve);
    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

private:
    UniqueFd listener_;
    UniqueFd endIn_;
    UniqueFd endOut_;
    std::thread thread_;
};

/// A socket in the helper's place that nobody listens on any more.
void leaveStaleSocket();

}  // namespace quillon::test
