#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "base/secret-bytes.h"
#include "platform/storage/provisioning-content.h"

/// What the platform library and the storage helper say to each other over the helper's socket
/// (SOCK_SEQPACKET, at QUILLON_STORAGE_SOCKET): one request in one packet, one answer in one packet
/// back, one of each on a connection. Numbers are in the machine's byte order. A packet of any
/// other form ends the connection without an answer.
namespace quillon::storage {

inline constexpr std::uint32_t kProtocolVersion = 1;

enum class Kind : std::uint32_t {
    kRead = 1,     ///< an item; its name, and nothing behind the head
    kInstall = 2,  ///< a provisioning package; no name, the package behind the head
};

struct RequestHead
{
    std::uint32_t version = kProtocolVersion;
    Kind kind = Kind::kRead;
    char item[72] = {};  ///< NUL-terminated, nothing but NUL behind that
};

struct AnswerHead
{
    std::uint32_t version = kProtocolVersion;
    std::int32_t result = 0;  ///< as of ss_read or sdp_install_from_file
};

static_assert(sizeof(RequestHead) == 80 && sizeof(AnswerHead) == 8, "no padding travels");

/// Pointing into the packet that was parsed.
struct Request
{
    Kind kind = Kind::kRead;
    std::string_view item;     ///< of Read; 1 to 71 characters, not looked at any further
    std::string_view package;  ///< of Install; 1 to kLargestPackage bytes
};

struct Answer
{
    std::int32_t result = 0;
    std::string_view item;  ///< of a Read with the result 0; 1 to kLargestItem bytes
};

inline constexpr std::size_t kLargestRequest = sizeof(RequestHead) + kLargestPackage;
inline constexpr std::size_t kLargestAnswer = sizeof(AnswerHead) + kLargestItem;

SecretBytes encodeRead(std::string_view item);  ///< @param item  71 characters at most
SecretBytes encodeInstall(const SecretBytes& package);
SecretBytes encodeAnswer(std::int32_t result, const SecretBytes& item);

/// @return nothing for a packet that is no request. Thread: any.
std::optional<Request> parseRequest(const SecretBytes& packet);

/// @param kind  of the request
/// @return nothing for a packet that is no answer to such a request. Thread: any.
std::optional<Answer> parseAnswer(Kind kind, const SecretBytes& packet);

}  // namespace quillon::storage
