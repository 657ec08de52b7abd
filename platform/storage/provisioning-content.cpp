#include "provisioning-content.h"

#include <algorithm>
#include <string>

namespace quillon {

namespace {

constexpr std::size_t kLongestName = 64;
constexpr std::string_view kSealedSuffix = ".cred";
constexpr std::string_view kFirstLine = "QUILLON-PROVISION 1";
constexpr std::string_view kItemLabel = "item ";

bool isNameCharacter(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' ||
           c == '_' || c == '-';
}

bool isNameOfSealedFile(std::string_view name)
{
    return name.size() >= kSealedSuffix.size() &&
           name.substr(name.size() - kSealedSuffix.size()) == kSealedSuffix;
}

// Takes a line "LABELVALUE\n" from the front of the bytes.
bool takeLine(std::string_view& bytes, std::string_view label, std::string_view& value)
{
    const std::size_t end = bytes.substr(0, kLongestContentHead).find('\n');
    if (end == std::string_view::npos || bytes.substr(0, label.size()) != label) {
        return false;
    }
    value = bytes.substr(label.size(), end - label.size());
    bytes.remove_prefix(end + 1);
    return true;
}

}  // namespace

bool isItemName(std::string_view name)
{
    return !name.empty() && name.size() <= kLongestName && name.front() != '.' &&
           !isNameOfSealedFile(name) && std::all_of(name.begin(), name.end(), isNameCharacter);
}

const char* parseProvisioningContent(std::string_view bytes, ProvisioningContent& content)
{
    std::string_view nothing;
    if (!takeLine(bytes, kFirstLine, nothing) || !nothing.empty()) {
        return "its content does not begin with \"QUILLON-PROVISION 1\"";
    }
    if (!takeLine(bytes, kItemLabel, content.item) || !isItemName(content.item)) {
        return "its second line is not \"item NAME\" with a valid name";
    }
    if (!takeLine(bytes, "", nothing) || !nothing.empty()) {
        return "its third line is not empty";
    }
    content.payload = bytes;
    if (bytes.empty() || bytes.size() > kLargestItem) {
        return "its payload does not have 1 to 65536 bytes";
    }
    return nullptr;
}

SecretBytes encodeProvisioningContent(const ProvisioningContent& content)
{
    std::string head(kFirstLine);
    head.append("\n").append(kItemLabel).append(content.item).append("\n\n");
    SecretBytes bytes(head.begin(), head.end());
    bytes.insert(bytes.end(), content.payload.begin(), content.payload.end());
    return bytes;
}

}  // namespace quillon
