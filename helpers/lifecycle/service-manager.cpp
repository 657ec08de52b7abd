#include "helpers/lifecycle/service-manager.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdlib>
#include <string_view>

#include "base/fd.h"

namespace quillon::unit {

void tellServiceManager(std::string_view state)
{
    const char* variable = std::getenv("NOTIFY_SOCKET");
    const std::string_view name = variable != nullptr ? variable : "";
    sockaddr_un address = {};
    if (name.empty() || (name[0] != '/' && name[0] != '@') ||
        name.size() >= sizeof address.sun_path) {
        return;
    }
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path, name.size());
    if (name[0] == '@') {
        address.sun_path[0] = '\0';
    }
    const UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    static_cast<void>(sendto(fd.get(), state.data(), state.size(), MSG_NOSIGNAL,
                             reinterpret_cast<const sockaddr*>(&address), size));
}

}  // namespace quillon::unit
