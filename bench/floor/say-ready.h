#ifndef QUILLON_BENCH_FLOOR_SAY_READY_H
#define QUILLON_BENCH_FLOOR_SAY_READY_H

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

/// Says READY=1 at the socket NOTIFY_SOCKET, with nothing but the C library.
/// @return false when there is such a socket but nobody takes it
inline bool sayReadyIfAsked()
{
    constexpr char kReady[] = "READY=1";
    const char* socketName = getenv("NOTIFY_SOCKET");
    if (socketName == nullptr) {
        return true;
    }
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::size_t length = strlen(socketName);
    if (length > sizeof address.sun_path) {
        return false;
    }
    memcpy(address.sun_path, socketName, length);
    if (address.sun_path[0] == '@') {
        address.sun_path[0] = '\0';
    }
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
    const ssize_t sent = sendto(fd, kReady, sizeof kReady - 1, MSG_NOSIGNAL,
                                reinterpret_cast<const sockaddr*>(&address), size);
    close(fd);
    return sent >= 0;
}

#endif
