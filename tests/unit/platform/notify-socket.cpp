#include "notify-socket.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

NotifySocket::NotifySocket(const std::string& name)
    : name_(name), fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path, sizeof address.sun_path - 1);
    if (name.front() == '@') {
        address.sun_path[0] = '\0';
    }
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    if (bind(fd_, reinterpret_cast<const sockaddr*>(&address), size) != 0) {
        throw std::runtime_error("no socket at " + name);
    }
    setenv("NOTIFY_SOCKET", name.c_str(), 1);
}

NotifySocket::~NotifySocket()
{
    unsetenv("NOTIFY_SOCKET");
    close(fd_);
    if (name_.front() == '/') {
        unlink(name_.c_str());
    }
}

std::vector<std::string> NotifySocket::received()
{
    std::vector<std::string> result;
    char buffer[256];
    for (ssize_t count = 0; (count = recv(fd_, buffer, sizeof buffer, 0)) >= 0;) {
        result.emplace_back(buffer, static_cast<std::size_t>(count));
    }
    return result;
}
