#include "platform/privileged.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "files.h"
#include "once.h"
#include "platform-log.h"
#include "privileged-protocol.h"

namespace {

using quillon::UniqueFd;
using quillon::privileged::Answer;
using quillon::privileged::Kind;
using quillon::privileged::kProtocolVersion;
using quillon::privileged::kTextSize;
using quillon::privileged::Request;

/// For each step. A mount takes as long as the device's storage does, and others may come first.
constexpr timeval kLongestWait = {30, 0};

// Each connection is one call's own, so that threads do not take each other's answers.
UniqueFd connectToHelper()
{
    constexpr char kPath[] = QUILLON_PRIVILEGED_SOCKET;
    sockaddr_un address = {};
    static_assert(sizeof kPath <= sizeof address.sun_path, "the socket's path is too long");
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, kPath, sizeof kPath);

    UniqueFd connection(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!connection ||
        setsockopt(connection.get(), SOL_SOCKET, SO_SNDTIMEO, &kLongestWait, sizeof kLongestWait) !=
            0 ||
        setsockopt(connection.get(), SOL_SOCKET, SO_RCVTIMEO, &kLongestWait, sizeof kLongestWait) !=
            0) {
        return UniqueFd();
    }
    int result = -1;
    do {
        result =
            connect(connection.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    } while (result != 0 && errno == EINTR);
    return result == 0 ? std::move(connection) : UniqueFd();
}

bool sendRequest(int connection, const Request& request)
{
    ssize_t sent = -1;
    do {
        sent = send(connection, &request, sizeof request, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent == static_cast<ssize_t>(sizeof request);
}

bool receiveAnswer(int connection, Answer& answer)
{
    ssize_t received = -1;
    do {
        received = recv(connection, &answer, sizeof answer, MSG_TRUNC);
    } while (received < 0 && errno == EINTR);
    if (received < 0) {
        return false;
    }
    // An end of the connection is no answer, and neither is a stranger's packet.
    errno = received == 0 ? ECONNRESET : EPROTO;
    return received == static_cast<ssize_t>(sizeof answer) && answer.version == kProtocolVersion &&
           answer.result >= 0;
}

/// @return false with errno telling why, said in the log
bool ask(const char* call, const Request& request, Answer& answer)
{
    const UniqueFd connection = connectToHelper();
    if (!connection) {
        static quillon::Once said;
        if (said.first()) {
            PLATFORM_LOGE("%s: no privileged helper at " QUILLON_PRIVILEGED_SOCKET ": %m", call);
        }
        return false;
    }
    if (!sendRequest(connection.get(), request) || !receiveAnswer(connection.get(), answer)) {
        errno = errno == EAGAIN ? ETIMEDOUT : errno;
        PLATFORM_LOGE("%s: no answer from the privileged helper: %m", call);
        return false;
    }
    return true;
}

/// @param length  of the text, without a NUL
int request(const char* call, Kind kind, const char* text, std::size_t length, int* result)
{
    int unused = 0;
    int& outcome = result != nullptr ? *result : unused;
    outcome = -1;
    if (text == nullptr || length == 0 || length >= kTextSize) {
        PLATFORM_LOGE("%s: a request has 1 to %zu characters", call, kTextSize - 1);
        errno = EINVAL;
        return -1;
    }
    Request packet;
    packet.kind = kind;
    std::memcpy(packet.text, text, length);
    Answer answer;
    if (!ask(call, packet, answer)) {
        return -1;
    }
    outcome = answer.result;
    return 0;
}

/// Characters before the NUL; 0, which no request has, when there is no NUL within the size.
std::size_t lengthIn(const char* buffer, int size)
{
    if (buffer == nullptr || size <= 0) {
        return 0;
    }
    const std::size_t length = strnlen(buffer, static_cast<std::size_t>(size));
    return length < static_cast<std::size_t>(size) ? length : 0;
}

}  // namespace

int PS_Mount(const char* text, int size, int /*reserved*/, int* result)
{
    return request("PS_Mount", Kind::Mount, text, lengthIn(text, size), result);
}

int PS_Mknod(const char* text, int size, int /*reserved*/, int* result)
{
    return request("PS_Mknod", Kind::Node, text, lengthIn(text, size), result);
}

int PS_Umount(const char* directory, int length, int /*reserved*/, int* result)
{
    const std::size_t size = length > 0 ? static_cast<std::size_t>(length) : 0;
    const std::size_t known = directory != nullptr ? strnlen(directory, size) : 0;
    return request("PS_Umount", Kind::Unmount, directory, known, result);
}
