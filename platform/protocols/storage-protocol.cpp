#include "platform/protocols/storage-protocol.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace quillon::storage {

namespace {

template <typename Head>
SecretBytes encode(const Head& head, const SecretBytes& rest)
{
    const auto* bytes = reinterpret_cast<const unsigned char*>(&head);
    SecretBytes packet(bytes, bytes + sizeof head);
    packet.insert(packet.end(), rest.begin(), rest.end());
    return packet;
}

/// Takes the head from the front of the packet.
template <typename Head>
bool takeHead(const SecretBytes& packet, Head& head, std::string_view& rest)
{
    if (packet.size() < sizeof head) {
        return false;
    }
    std::memcpy(&head, packet.data(), sizeof head);
    rest = std::string_view(reinterpret_cast<const char*>(packet.data()), packet.size());
    rest.remove_prefix(sizeof head);
    return head.version == kProtocolVersion;
}

/// @return nothing when what stands behind the name is not all NUL
std::optional<std::string_view> nameIn(std::string_view field)
{
    const std::size_t length = std::min(field.find('\0'), field.size());
    const bool isPadded =
        length < field.size() && field.find_first_not_of('\0', length) == std::string_view::npos;
    return isPadded ? std::optional(field.substr(0, length)) : std::nullopt;
}

}  // namespace

SecretBytes encodeRead(std::string_view item)
{
    RequestHead head;
    item.copy(head.item, sizeof head.item - 1);
    return encode(head, {});
}

SecretBytes encodeInstall(const SecretBytes& package)
{
    RequestHead head;
    head.kind = Kind::kInstall;
    return encode(head, package);
}

SecretBytes encodeAnswer(std::int32_t result, const SecretBytes& item)
{
    AnswerHead head;
    head.result = result;
    return encode(head, item);
}

std::optional<Request> parseRequest(const SecretBytes& packet)
{
    RequestHead head;
    std::string_view rest;
    if (packet.size() > kLargestRequest || !takeHead(packet, head, rest)) {
        return std::nullopt;
    }
    // The name has to lie in the packet, since the head is a copy that ends with this function.
    const std::string_view field(
        reinterpret_cast<const char*>(packet.data()) + offsetof(RequestHead, item),
        sizeof head.item);
    const auto name = nameIn(field);
    if (!name) {
        return std::nullopt;
    }
    const bool isRead = head.kind == Kind::kRead && !name->empty() && rest.empty();
    const bool isInstall = head.kind == Kind::kInstall && name->empty() && !rest.empty();
    return isRead || isInstall ? std::optional(Request{head.kind, *name, rest}) : std::nullopt;
}

std::optional<Answer> parseAnswer(Kind kind, const SecretBytes& packet)
{
    AnswerHead head;
    std::string_view rest;
    if (packet.size() > kLargestAnswer || !takeHead(packet, head, rest)) {
        return std::nullopt;
    }
    const bool bringsItem = kind == Kind::kRead && head.result == 0;
    if (head.result < 0 || bringsItem == rest.empty()) {
        return std::nullopt;
    }
    return Answer{head.result, rest};
}

}  // namespace quillon::storage
