#include "provisioning-package.h"

#include <openssl/evp.h>
#include <openssl/sha.h>

#include "hex-text.h"
#include "image-error.h"

namespace quillon {
namespace {

constexpr std::size_t kLongestName = 64;
constexpr std::size_t kLargestPayload = 65536;
constexpr char kNameCharacters[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";

bool isItemName(const std::string& name)
{
    return !name.empty() && name.size() <= kLongestName && name.front() != '.' &&
           name.find_first_not_of(kNameCharacters) == std::string::npos;
}

std::string sha256Text(const std::string& data)
{
    unsigned char digest[SHA256_DIGEST_LENGTH] = {};
    if (EVP_Digest(data.data(), data.size(), digest, nullptr, EVP_sha256(), nullptr) != 1) {
        throw ImageError(ImageFault::Key, "SHA-256 cannot be computed");
    }
    return hexText(digest, sizeof(digest));
}

}  // namespace

std::string encodeProvisioningPackage(const std::string& item, const std::string& payload)
{
    if (!isItemName(item)) {
        throw ImageError(ImageFault::Usage, "'" + item + "' is no name for a storage item");
    }
    if (payload.empty() || payload.size() > kLargestPayload) {
        throw ImageError(ImageFault::Usage, "a storage item has 1 to 65536 bytes");
    }
    return "QUILLON-PROVISION 1\nitem " + item + "\nsha256 " + sha256Text(payload) + "\n\n" +
           payload;
}

}  // namespace quillon
