#include "helpers/storage/serve-client.h"

#include <poll.h>
#include <sys/socket.h>
#include <systemd/sd-daemon.h>

#include <cerrno>
#include <string>

#include "base/fd.h"
#include "base/secret-bytes.h"
#include "helpers/shared/failure.h"
#include "platform/log/platform-log.h"
#include "platform/protocols/storage-protocol.h"
#include "platform/storage/install-package.h"
#include "platform/storage/item-store.h"

namespace quillon::storage {

namespace {

bool waitForRequest(int connection)
{
    using std::chrono::milliseconds;
    pollfd waiting = {connection, POLLIN, 0};
    const auto longest = std::chrono::duration_cast<milliseconds>(kLongestSilence).count();
    const int ready = uninterrupted([&] { return poll(&waiting, 1, static_cast<int>(longest)); });
    if (ready < 0) {
        failWithErrno("poll");
    }
    return ready > 0;
}

/// @return empty when the client sends nothing, or more than any request has
SecretBytes receivePacket(int connection)
{
    SecretBytes packet(kLargestRequest);
    const ssize_t size = uninterrupted(
        [&] { return recv(connection, packet.data(), packet.size(), MSG_TRUNC | MSG_DONTWAIT); });
    const bool fits = size > 0 && static_cast<std::size_t>(size) <= packet.size();
    packet.resize(fits ? static_cast<std::size_t>(size) : 0);
    return packet;
}

SecretBytes answerRead(const Peer& peer, std::string_view item)
{
    SecretBytes bytes;
    const int result = readItem(item, bytes);
    PLATFORM_LOGI("process %d of user %u asked for %.*s: %d", peer.pid, peer.user,
                  static_cast<int>(item.size()), item.data(), result);
    return encodeAnswer(result, result == kStoreOk ? bytes : SecretBytes());
}

SecretBytes answerInstall(const Peer& peer, std::string_view package)
{
    const std::string name = "the package of process " + std::to_string(peer.pid) + " of user " +
                             std::to_string(peer.user);
    return encodeAnswer(installPackage(name, SecretBytes(package.begin(), package.end())), {});
}

}  // namespace

void serveClient(int connection, const Callers& callers)
{
    if (sd_is_socket(connection, AF_UNIX, SOCK_SEQPACKET, 0) <= 0) {
        throw Failure(ENOTSOCK, "standard input is not a client's connection");
    }
    const Peer peer = peerOf(connection);
    if (!mayAsk(callers, peer)) {
        PLATFORM_LOGE("process %d refused: user %u may not ask", peer.pid, peer.user);
        return;
    }
    if (!waitForRequest(connection)) {
        PLATFORM_LOGE("process %d of user %u asked nothing", peer.pid, peer.user);
        return;
    }
    const SecretBytes packet = receivePacket(connection);
    const auto request = parseRequest(packet);
    if (!request) {
        PLATFORM_LOGE("process %d of user %u sent no request", peer.pid, peer.user);
        return;
    }
    const SecretBytes answer = request->kind == Kind::kRead ? answerRead(peer, request->item)
                                                            : answerInstall(peer, request->package);
    if (send(connection, answer.data(), answer.size(), MSG_DONTWAIT | MSG_NOSIGNAL) !=
        static_cast<ssize_t>(answer.size())) {
        PLATFORM_LOGE("process %d did not wait for its answer: %m", peer.pid);
    }
}

}  // namespace quillon::storage
