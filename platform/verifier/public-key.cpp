#include "platform/verifier/public-key.h"

#include <dirent.h>
#include <openssl/crypto.h>
#include <openssl/sha.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string_view>

#include "platform/verifier/image-error.h"
#include "platform/verifier/input-file.h"

namespace quillon {
namespace {

constexpr std::size_t kLargestKeyFile = 65536;
constexpr int kKeyBits = 4096;

struct CloseDirectory
{
    void operator()(DIR* directory) const { closedir(directory); }
};

bool isPemFile(std::string_view name)
{
    constexpr std::string_view kSuffix = ".pem";
    return name.size() > kSuffix.size() && name.substr(name.size() - kSuffix.size()) == kSuffix;
}

void releaseDer(unsigned char* der)
{
    OPENSSL_free(der);
}

}  // namespace

int refusePassPhrase(char* /*buffer*/, int /*size*/, int /*writing*/, void* /*user*/)
{
    return -1;
}

std::vector<std::string> pemFilesIn(const std::string& directory, std::error_code& error)
{
    // Not std::filesystem: its iterators with an error code end the process when memory runs out.
    const std::unique_ptr<DIR, CloseDirectory> entries(opendir(directory.c_str()));
    if (!entries) {
        error.assign(errno, std::generic_category());
        return {};
    }
    const std::string prefix = directory.substr(0, directory.find_last_not_of('/') + 1) + "/";
    std::vector<std::string> files;
    errno = 0;
    while (const dirent* entry = readdir(entries.get())) {
        if (isPemFile(entry->d_name)) {
            files.push_back(prefix + entry->d_name);
        }
        errno = 0;
    }
    error.assign(errno, std::generic_category());
    std::sort(files.begin(), files.end());
    return files;
}

UniqueKey loadKey(const std::string& path, KeyReader* read, const char* fault)
{
    const std::string text = readSmallFile(path, kLargestKeyFile);
    const UniqueBio source(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
    if (!source) {
        throw ImageError(ImageFault::kFile, path + ": cannot be read: out of memory");
    }
    UniqueKey key(read(source.get(), nullptr, &refusePassPhrase, nullptr));
    if (!key) {
        throw ImageError(ImageFault::kKey, path + ": " + fault);
    }
    return key;
}

void requireRsa4096(const EVP_PKEY* key, const std::string& path)
{
    if (EVP_PKEY_is_a(key, "RSA") != 1 || EVP_PKEY_bits(key) != kKeyBits) {
        throw ImageError(ImageFault::kKey, path + ": not an RSA key of 4096 bits");
    }
}

UniqueKey loadPublicKey(const std::string& path)
{
    UniqueKey key = loadKey(path, &PEM_read_bio_PUBKEY, "not a public key in PEM form");
    requireRsa4096(key.get(), path);
    return key;
}

KeyId keyIdOf(const EVP_PKEY* key)
{
    unsigned char* der = nullptr;
    const int length = i2d_PUBKEY(key, &der);
    const std::unique_ptr<unsigned char, ReleaseWith<&releaseDer>> owner(der);
    if (length <= 0) {
        throw ImageError(ImageFault::kKey, "key cannot be encoded");
    }
    unsigned char digest[SHA256_DIGEST_LENGTH] = {};
    if (EVP_Digest(der, static_cast<std::size_t>(length), digest, nullptr, EVP_sha256(), nullptr) !=
        1) {
        throw ImageError(ImageFault::kKey, "key id cannot be computed");
    }
    KeyId keyId{};
    std::copy_n(digest, keyId.size(), keyId.begin());
    return keyId;
}

}  // namespace quillon
