#ifndef QUILLON_PLATFORM_LINUX_HELPER_CONNECTION_H
#define QUILLON_PLATFORM_LINUX_HELPER_CONNECTION_H

#include <sys/types.h>

#include <cstddef>

#include "files.h"

namespace quillon {

/// The client's end of a connection to a process of root's: one packet there, one back. Each call
/// of a thread makes its own, so that threads do not take each other's answers. Each step waits up
/// to 30 s: a mount takes as long as the device's storage does, and others may come first.
/// Thread: one object, one thread. Never throws.
class HelperConnection
{
public:
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
    UniqueFd socket_;
};

}  // namespace quillon

#endif
