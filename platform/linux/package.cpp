#include "package.h"

#include <openssl/evp.h>

#include <algorithm>
#include <string>

#include "item-store.h"

namespace quillon {

namespace {

constexpr std::size_t kDigestDigits = 64;

// Takes a line "LABEL VALUE\n" from the front of the bytes.
bool takeLine(std::string_view& bytes, std::string_view label, std::string_view& value)
{
    const std::size_t end = bytes.substr(0, kLongestPackageHead).find('\n');
    if (end == std::string_view::npos || bytes.substr(0, label.size()) != label) {
        return false;
    }
    value = bytes.substr(label.size(), end - label.size());
    bytes.remove_prefix(end + 1);
    return true;
}

bool isLowercaseHex(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
}

}  // namespace

const char* parsePackage(std::string_view bytes, Package& package)
{
    std::string_view nothing;
    if (!takeLine(bytes, "QUILLON-PROVISION 1", nothing) || !nothing.empty()) {
        return "it does not begin with \"QUILLON-PROVISION 1\"";
    }
    if (!takeLine(bytes, "item ", package.item) || !isItemName(package.item)) {
        return "its second line is not \"item NAME\" with a valid name";
    }
    if (!takeLine(bytes, "sha256 ", package.digest) || package.digest.size() != kDigestDigits ||
        !std::all_of(package.digest.begin(), package.digest.end(), isLowercaseHex)) {
        return "its third line is not \"sha256 HEX\" with 64 lowercase digits";
    }
    if (!takeLine(bytes, "", nothing) || !nothing.empty()) {
        return "its fourth line is not empty";
    }
    package.payload = bytes;
    if (bytes.empty() || bytes.size() > kLargestItem) {
        return "its payload does not have 1 to 65536 bytes";
    }
    return nullptr;
}

bool digestMatches(const Package& package)
{
    unsigned char digest[EVP_MAX_MD_SIZE] = {};
    unsigned int size = 0;
    if (EVP_Digest(package.payload.data(), package.payload.size(), digest, &size, EVP_sha256(),
                   nullptr) != 1) {
        return false;
    }
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (unsigned int i = 0; i < size; ++i) {
        text += kDigits[digest[i] >> 4U];
        text += kDigits[digest[i] & 0x0fU];
    }
    return text == package.digest;
}

}  // namespace quillon
