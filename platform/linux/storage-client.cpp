#include "storage-client.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "install-package.h"
#include "item-store.h"
#include "platform-log.h"
#include "provisioning-content.h"
#include "storage-protocol.h"

namespace quillon {

namespace {

using storage::Answer;
using storage::Kind;

constexpr timeval kLongestWait = {30, 0};

/// @return 0, or -1 with errno telling why
int connectTo(int connection)
{
    constexpr char kPath[] = QUILLON_STORAGE_SOCKET;
    sockaddr_un address = {};
    static_assert(sizeof kPath <= sizeof address.sun_path, "the socket's path is too long");
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, kPath, sizeof kPath);
    int result = -1;
    do {
        result = connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    } while (result != 0 && errno == EINTR);
    return result;
}

bool limitWaiting(int connection)
{
    return setsockopt(connection, SOL_SOCKET, SO_SNDTIMEO, &kLongestWait, sizeof kLongestWait) ==
               0 &&
           setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &kLongestWait, sizeof kLongestWait) == 0;
}

bool sendPacket(int connection, const SecretBytes& packet)
{
    ssize_t sent = -1;
    do {
        sent = send(connection, packet.data(), packet.size(), MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent == static_cast<ssize_t>(packet.size());
}

/// @return false with errno telling why
bool receivePacket(int connection, SecretBytes& packet)
{
    packet.resize(storage::kLargestAnswer);
    ssize_t received = -1;
    do {
        received = recv(connection, packet.data(), packet.size(), MSG_TRUNC);
    } while (received < 0 && errno == EINTR);
    if (received < 0) {
        return false;
    }
    // An end of the connection is no answer, and neither is more than any answer has.
    errno = received == 0 ? ECONNRESET : EPROTO;
    const bool fits = received > 0 && static_cast<std::size_t>(received) <= packet.size();
    packet.resize(fits ? static_cast<std::size_t>(received) : 0);
    return fits;
}

bool nobodyListens()
{
    return errno == ENOENT || errno == ECONNREFUSED || errno == ENOTDIR;
}

/// @param[out] packet  what the answer points into; empty when there is none
/// @param unanswered   the result when there is no answer
/// @return nothing where nobody listens
std::optional<Answer> ask(Kind kind, const SecretBytes& request, int unanswered,
                          SecretBytes& packet)
{
    const UniqueFd connection(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    const bool connected =
        connection && limitWaiting(connection.get()) && connectTo(connection.get()) == 0;
    if (!connected && nobodyListens()) {
        return std::nullopt;
    }
    if (connected && sendPacket(connection.get(), request) &&
        receivePacket(connection.get(), packet)) {
        if (const auto answer = storage::parseAnswer(kind, packet)) {
            return answer;
        }
        errno = EPROTO;
        packet.clear();
    }
    errno = errno == EAGAIN ? ETIMEDOUT : errno;
    PLATFORM_LOGE("no answer from the storage helper at " QUILLON_STORAGE_SOCKET ": %m");
    return Answer{unanswered, {}};
}

void tellWhereTheReasonIs(const char* what, int result)
{
    PLATFORM_LOGE("%s: the storage helper answers %d, its own line says why", what, result);
}

}  // namespace

std::optional<int> readThroughHelper(std::string_view item, SecretBytes& bytes)
{
    if (!isItemName(item)) {
        return std::nullopt;  // whoever looks at it next says what is wrong with it
    }
    SecretBytes packet;
    const auto answer = ask(Kind::Read, storage::encodeRead(item), kStoreFailed, packet);
    if (!answer) {
        return std::nullopt;
    }
    bytes.assign(answer->item.begin(), answer->item.end());
    if (!packet.empty() && answer->result != kStoreOk && answer->result != kStoreMissing) {
        tellWhereTheReasonIs(std::string(item).c_str(), answer->result);
    }
    return answer->result;
}

std::optional<int> installThroughHelper(const SecretBytes& package)
{
    if (package.empty()) {
        return std::nullopt;  // as above
    }
    SecretBytes packet;
    const auto answer = ask(Kind::Install, storage::encodeInstall(package), kStorageFailed, packet);
    if (!answer) {
        return std::nullopt;
    }
    if (!packet.empty() && answer->result != kInstalled && answer->result != kAlreadyInstalled) {
        tellWhereTheReasonIs("provisioning package", answer->result);
    }
    return answer->result;
}

}  // namespace quillon
