#include "platform/storage/provisioning-content.h"

#include <algorithm>
#include <string>

#include "base/alphanumeric.h"

namespace quillon {

namespace {

constexpr std::size_t kLongestName = 64;
constexpr std::string_view kSealedSuffix = ".cred";
constexpr std::string_view kFirstLine = "QUILLON-PROVISION 1";
constexpr std::string_view kItemLabel = "item ";
constexpr std::string_view kFloorLabel = "floor ";

bool isNameCharacter(char c)
{
    return isLetterOrDigit(c) || c == '.' || c == '_' || c == '-';
}

bool isNameOfSealedFile(std::string_view name)
{
    return name.size() >= kSealedSuffix.size() &&
           name.substr(name.size() - kSealedSuffix.size()) == kSealedSuffix;
}

// Takes a line "LABELVALUE\n" from the front of the bytes.
bool takeLine(std::string_view& bytes, std::string_view label, std::string_view& value)
{
    const std::size_t end = bytes.substr(0, kLongestHeadLine).find('\n');
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
    std::string_view line;
    if (!takeLine(bytes, kFirstLine, line) || !line.empty()) {
        return "its content does not begin with \"QUILLON-PROVISION 1\"";
    }
    const bool hasItem = takeLine(bytes, kItemLabel, content.item);
    if (hasItem && !isItemName(content.item)) {
        return "its second line has no valid name of an item";
    }
    while (takeLine(bytes, kFloorLabel, line)) {
        if (!addFloor(content.floors, std::string(line), ' ')) {
            return "a line is not \"floor MODULE NUMBER\" with a module's name, once for each "
                   "module";
        }
    }
    if (!takeLine(bytes, "", line) || !line.empty()) {
        return "its head has a line that is neither \"item NAME\" nor \"floor MODULE NUMBER\"";
    }
    if (!hasItem && content.floors.empty()) {
        return "it brings neither an item nor a floor";
    }
    content.payload = bytes;
    if (hasItem ? bytes.empty() || bytes.size() > kLargestItem : !bytes.empty()) {
        return "its payload does not have 1 to 65536 bytes, or none without an item";
    }
    return nullptr;
}

SecretBytes encodeProvisioningContent(const ProvisioningContent& content)
{
    std::string head(kFirstLine);
    head.append("\n");
    if (!content.item.empty()) {
        head.append(kItemLabel).append(content.item).append("\n");
    }
    for (const auto& [module, floor] : content.floors) {
        head.append(kFloorLabel).append(module).append(" ");
        head.append(std::to_string(floor)).append("\n");
    }
    head.append("\n");
    SecretBytes bytes(head.begin(), head.end());
    bytes.insert(bytes.end(), content.payload.begin(), content.payload.end());
    return bytes;
}

}  // namespace quillon
