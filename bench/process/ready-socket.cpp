#include "process/ready-socket.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace quillon::bench {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

[[noreturn]] void fail(const char* what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

bool hasReadyLine(const std::string& text)
{
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line == "READY=1") {
            return true;
        }
    }
    return false;
}

/// A descriptor that becomes readable when a process ends.
class EndOf
{
public:
    // The C library's own pidfd_open cannot be linked from C++ before its version 2.37.
    explicit EndOf(pid_t process) : fd_(static_cast<int>(syscall(SYS_pidfd_open, process, 0)))
    {
        if (fd_ == -1) {
            fail("pidfd_open");
        }
    }
    ~EndOf() { close(fd_); }
    EndOf(const EndOf&) = delete;
    EndOf& operator=(const EndOf&) = delete;
    int fd() const { return fd_; }

private:
    int fd_;
};

}  // namespace

ReadySocket::ReadySocket() : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
{
    const int on = 1;
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    // Bound to no name, the kernel chooses one that is free: a NUL and five digits.
    if (socket_ == -1 || setsockopt(socket_, SOL_SOCKET, SO_PASSCRED, &on, sizeof on) != 0 ||
        bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof(sa_family_t)) != 0) {
        fail("the socket for readiness");
    }
    socklen_t size = sizeof address;
    if (getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        fail("the socket for readiness");
    }
    name_.assign(address.sun_path, size - offsetof(sockaddr_un, sun_path));
    name_.front() = '@';
}

ReadySocket::~ReadySocket()
{
    close(socket_);
}

steady_clock::time_point ReadySocket::waitFor(pid_t process, milliseconds timeout)
{
    const auto deadline = steady_clock::now() + timeout;
    const EndOf end(process);
    std::array<pollfd, 2> events = {{{socket_, POLLIN, 0}, {end.fd(), POLLIN, 0}}};
    for (;;) {
        const auto left = std::chrono::ceil<milliseconds>(deadline - steady_clock::now());
        if (left.count() <= 0) {
            throw std::runtime_error("the process does not become ready");
        }
        if (poll(events.data(), events.size(), static_cast<int>(left.count())) < 0) {
            if (errno == EINTR) {
                continue;
            }
            fail("poll");
        }
        const auto now = steady_clock::now();
        if ((events[0].revents & POLLIN) != 0) {
            if (takeReadyOf(process)) {
                return now;
            }
        } else if (events[1].revents != 0) {
            throw std::runtime_error("the process ended before it was ready");
        }
    }
}

bool ReadySocket::takeReadyOf(pid_t process)
{
    std::array<char, 4096> text{};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(ucred))> control{};
    iovec piece = {text.data(), text.size()};
    msghdr message = {};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    const ssize_t received = recvmsg(socket_, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (received < 0) {
        fail("recvmsg");
    }
    const cmsghdr* header = CMSG_FIRSTHDR(&message);
    if (header == nullptr || header->cmsg_type != SCM_CREDENTIALS) {
        return false;
    }
    ucred sender = {};
    std::memcpy(&sender, CMSG_DATA(header), sizeof sender);
    return sender.pid == process &&
           hasReadyLine(std::string(text.data(), static_cast<std::size_t>(received)));
}

}  // namespace quillon::bench
