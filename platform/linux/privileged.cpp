#include "platform/privileged.h"

#include <sys/types.h>
#include <sys/un.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "platform/linux/helper-connection.h"
#include "platform/log/platform-log.h"
#include "platform/protocols/mount-protocol.h"

namespace {

static_assert(sizeof QUILLON_PRIVILEGED_SOCKET <= sizeof sockaddr_un::sun_path,
              "the socket's path is too long");

using quillon::HelperConnection;
using quillon::privileged::Answer;
using quillon::privileged::Kind;
using quillon::privileged::kProtocolVersion;
using quillon::privileged::kTextSize;
using quillon::privileged::Request;

/// @return false with errno telling why
bool receiveAnswer(HelperConnection& connection, Answer& answer)
{
    const ssize_t size = connection.receive(&answer, sizeof answer);
    if (size < 0) {
        return false;
    }
    if (size != static_cast<ssize_t>(sizeof answer) || answer.version != kProtocolVersion ||
        answer.result < 0) {
        errno = EPROTO;  // a stranger's packet is no answer
        return false;
    }
    return true;
}

/// @return false with errno telling why, said in the log
bool ask(const char* call, const Request& request, Answer& answer)
{
    static quillon::HelperPatience patience;
    HelperConnection connection(patience);
    if (!connection.open(QUILLON_PRIVILEGED_SOCKET)) {
        static std::atomic_flag said = ATOMIC_FLAG_INIT;
        if (!said.test_and_set()) {
            PLATFORM_LOGE("%s: no privileged helper at " QUILLON_PRIVILEGED_SOCKET ": %m", call);
        }
        return false;
    }
    if (!connection.send(&request, sizeof request) || !receiveAnswer(connection, answer)) {
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
    return request("PS_Mount", Kind::kMount, text, lengthIn(text, size), result);
}

int PS_Mknod(const char* text, int size, int /*reserved*/, int* result)
{
    return request("PS_Mknod", Kind::kNode, text, lengthIn(text, size), result);
}

int PS_Umount(const char* directory, int length, int /*reserved*/, int* result)
{
    const std::size_t size = length > 0 ? static_cast<std::size_t>(length) : 0;
    const std::size_t known = directory != nullptr ? strnlen(directory, size) : 0;
    return request("PS_Umount", Kind::kUnmount, directory, known, result);
}
