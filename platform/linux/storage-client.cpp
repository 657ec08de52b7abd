#include "platform/linux/storage-client.h"

#include <sys/types.h>
#include <sys/un.h>

#include <cerrno>
#include <string>

#include "platform/linux/helper-connection.h"
#include "platform/log/platform-log.h"
#include "platform/protocols/storage-protocol.h"
#include "platform/storage/install-package.h"
#include "platform/storage/item-store.h"
#include "platform/storage/provisioning-content.h"

namespace quillon {

namespace {

static_assert(sizeof QUILLON_STORAGE_SOCKET <= sizeof sockaddr_un::sun_path,
              "the socket's path is too long");

using storage::Answer;
using storage::Kind;

/// @return false with errno telling why
bool receivePacket(HelperConnection& connection, SecretBytes& packet)
{
    packet.resize(storage::kLargestAnswer);
    const ssize_t size = connection.receive(packet.data(), packet.size());
    packet.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
    return size > 0;
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
    static HelperPatience patience;
    HelperConnection connection(patience);
    const bool connected = connection.open(QUILLON_STORAGE_SOCKET);
    if (!connected && nobodyListens()) {
        return std::nullopt;
    }
    if (connected && connection.send(request.data(), request.size()) &&
        receivePacket(connection, packet)) {
        if (const auto answer = storage::parseAnswer(kind, packet)) {
            return answer;
        }
        errno = EPROTO;
        packet.clear();
    }
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
    const auto answer = ask(Kind::kRead, storage::encodeRead(item), kStoreFailed, packet);
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
    const auto answer =
        ask(Kind::kInstall, storage::encodeInstall(package), kStorageFailed, packet);
    if (!answer) {
        return std::nullopt;
    }
    if (!packet.empty() && answer->result != kInstalled && answer->result != kAlreadyInstalled) {
        tellWhereTheReasonIs("provisioning package", answer->result);
    }
    return answer->result;
}

}  // namespace quillon
