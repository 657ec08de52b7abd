#pragma once

#include <cstddef>
#include <cstdint>

/// What the platform library and the privileged helper say to each other over the helper's socket
/// (SOCK_SEQPACKET, at QUILLON_PRIVILEGED_SOCKET): one Request in one packet, one Answer in one
/// packet back, any number of them on a connection. Numbers are in the machine's byte order. A
/// packet of any other size, version or kind ends the connection without an answer.
namespace quillon::privileged {

inline constexpr std::uint32_t kProtocolVersion = 1;

/// The longest text of a request, with the NUL at its end.
inline constexpr std::size_t kTextSize = 1024;

enum class Kind : std::uint32_t {
    kMount = 1,    ///< text: "-o ro,loop,nodev,nosuid IMAGE DIRECTORY"
    kNode = 2,     ///< text: "-m 0660 -Z * /dev/loopN  b 7 N"
    kUnmount = 3,  ///< text: the mount point
};

struct Request
{
    std::uint32_t version = kProtocolVersion;
    Kind kind = Kind::kMount;
    char text[kTextSize] = {};  ///< NUL-terminated, nothing but NUL behind that
};

struct Answer
{
    std::uint32_t version = kProtocolVersion;
    std::int32_t result = 0;  ///< 0 done, else a positive number as in errno
};

static_assert(sizeof(Request) == 8 + kTextSize && sizeof(Answer) == 8, "no padding travels");

}  // namespace quillon::privileged
