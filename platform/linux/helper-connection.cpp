#include "platform/linux/helper-connection.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace quillon {

/// Has the next step wait for no longer than what is left of the time for all of them.
/// @return false, with EAGAIN when nothing is left
bool HelperConnection::limitWaiting(int option) const
{
    using std::chrono::microseconds;
    constexpr std::int64_t kSecond = 1000000;
    const std::int64_t left =
        std::chrono::duration_cast<microseconds>(deadline_ - Clock::now()).count();
    if (left <= 0) {
        errno = EAGAIN;
        return false;
    }
    const timeval time = {static_cast<time_t>(left / kSecond),
                          static_cast<suseconds_t>(left % kSecond)};
    return setsockopt(socket_.get(), SOL_SOCKET, option, &time, sizeof time) == 0;
}

/// @return the step's result; of one whose time is over, errno is the word that people know
template <typename Step>
ssize_t HelperConnection::beforeDeadline(int option, Step step)
{
    const ssize_t result =
        uninterrupted([&]() -> ssize_t { return limitWaiting(option) ? step() : -1; });
    if (result < 0 && errno == EAGAIN) {
        patience_.lose();
        errno = ETIMEDOUT;
    }
    return result;
}

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
    if (!socket_) {
        return false;
    }
    deadline_ = Clock::now() + patience_.left();
    return beforeDeadline(SO_SNDTIMEO, [&] {
               return connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address),
                              sizeof address);
           }) == 0;
}

bool HelperConnection::send(const void* packet, std::size_t size)
{
    const ssize_t sent = beforeDeadline(
        SO_SNDTIMEO, [&] { return ::send(socket_.get(), packet, size, MSG_NOSIGNAL); });
    return sent == static_cast<ssize_t>(size);
}

ssize_t HelperConnection::receive(void* packet, std::size_t size)
{
    const ssize_t received =
        beforeDeadline(SO_RCVTIMEO, [&] { return recv(socket_.get(), packet, size, MSG_TRUNC); });
    if (received < 0) {
        return -1;
    }
    patience_.regain();
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
