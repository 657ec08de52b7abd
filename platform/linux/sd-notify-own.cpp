// Takes the place of sd-notify.cpp where libsystemd was not there at build time.

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "files.h"
#include "sd-notify.h"

namespace quillon {

namespace {

// The whole text as a number above 0, the largest one for what is too large; 0 for anything else.
std::uint64_t positiveNumber(const char* text)
{
    if (*text < '0' || *text > '9') {
        return 0;
    }
    char* end = nullptr;
    const std::uint64_t number = std::strtoull(text, &end, 10);
    return *end == '\0' ? number : 0;
}

}  // namespace

int tellServiceManager(const char* state)
{
    const char* name = std::getenv("NOTIFY_SOCKET");
    if (name == nullptr) {
        return 0;
    }
    const std::size_t length = std::strlen(name);
    if (*name != '/' && *name != '@') {
        return -EINVAL;
    }
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (length >= sizeof address.sun_path) {
        return -ENAMETOOLONG;
    }
    std::memcpy(address.sun_path, name, length);
    if (*name == '@') {
        address.sun_path[0] = '\0';
    }
    const UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd) {
        return -errno;
    }
    const auto addressSize = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
    const ssize_t sent = sendto(fd.get(), state, std::strlen(state), MSG_NOSIGNAL,
                                reinterpret_cast<const sockaddr*>(&address), addressSize);
    return sent < 0 ? -errno : 0;
}

int serviceManagerWatchdog(std::chrono::microseconds& timeout)
{
    const char* microsecondsText = std::getenv("WATCHDOG_USEC");
    if (microsecondsText == nullptr) {
        return 0;
    }
    const std::uint64_t microseconds = positiveNumber(microsecondsText);
    if (microseconds == 0 || microseconds == UINT64_MAX) {
        return -EINVAL;
    }
    const char* processText = std::getenv("WATCHDOG_PID");
    if (processText != nullptr) {
        const std::uint64_t process = positiveNumber(processText);
        if (process == 0) {
            return -EINVAL;
        }
        if (process != static_cast<std::uint64_t>(getpid())) {
            return 0;
        }
    }
    timeout = std::chrono::microseconds(microseconds);
    return 1;
}

}  // namespace quillon
