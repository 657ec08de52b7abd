#include "helper-connection.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

namespace quillon {

namespace {

constexpr timeval kLongestWait = {30, 0};

bool limitWaiting(int socket)
{
    return setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &kLongestWait, sizeof kLongestWait) == 0 &&
           setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &kLongestWait, sizeof kLongestWait) == 0;
}

/// @return the result; of a failed step whose time is over, errno is the word that people know
template <typename Result>
Result withTimeout(Result result)
{
    if (result < 0 && errno == EAGAIN) {
        errno = ETIMEDOUT;
    }
    return result;
}

}  // namespace

bool HelperConnection::open(const char* path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (std::strlen(path) >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return false;
    }
    std::memcpy(address.sun_path, path, std::strlen(path));

    socket_ = UniqueFd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!socket_ || !limitWaiting(socket_.get())) {
        return false;
    }
    int result = -1;
    do {
        result =
            connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    } while (result != 0 && errno == EINTR);
    return withTimeout(result) == 0;
}

bool HelperConnection::send(const void* packet, std::size_t size)
{
    ssize_t sent = -1;
    do {
        sent = ::send(socket_.get(), packet, size, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return withTimeout(sent) == static_cast<ssize_t>(size);
}

ssize_t HelperConnection::receive(void* packet, std::size_t size)
{
    ssize_t received = -1;
    do {
        received = recv(socket_.get(), packet, size, MSG_TRUNC);
    } while (received < 0 && errno == EINTR);
    if (received < 0) {
        return withTimeout(received);
    }
    if (received == 0) {
        errno = ECONNRESET;
        return -1;
    }
    if (static_cast<std::size_t>(received) > size) {
        errno = EPROTO;
        return -1;
    }
    return received;
}

}  // namespace quillon
