#include "signed-file.h"

#include <openssl/rsa.h>

#include <algorithm>
#include <vector>

#include "image-error.h"
#include "openssl-handle.h"

namespace quillon {
namespace {

constexpr std::size_t kChunkSize = 65536;

ImageTrailer readTrailer(const RegularFile& file)
{
    if (file.size() < kTrailerSize) {
        throw notSigned(file.path(), "too short for a signature trailer");
    }
    TrailerBytes bytes{};
    file.readAt(file.size() - kTrailerSize, bytes.data(), bytes.size());
    return parseTrailer(bytes, file.path());
}

}  // namespace

bool useImagePadding(EVP_PKEY_CTX* context)
{
    return EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PSS_PADDING) == 1 &&
           EVP_PKEY_CTX_set_rsa_pss_saltlen(context, kSaltSize) == 1 &&
           EVP_PKEY_CTX_set_rsa_mgf1_md(context, EVP_sha256()) == 1;
}

SignedFile::SignedFile(const std::string& path) : _file(path), _trailer(readTrailer(_file))
{
}

void SignedFile::requireSignatureOf(EVP_PKEY* key) const
{
    const UniqueDigest digest(EVP_MD_CTX_new());
    EVP_PKEY_CTX* padding = nullptr;  // belongs to the digest
    if (!digest || EVP_DigestVerifyInit(digest.get(), &padding, EVP_sha256(), nullptr, key) != 1 ||
        !useImagePadding(padding)) {
        throw notSigned(_file.path(), "signature cannot be checked with this key");
    }

    std::vector<unsigned char> chunk(kChunkSize);
    const std::uint64_t end = contentSize();
    for (std::uint64_t offset = 0; offset < end;) {
        const auto length =
            static_cast<std::size_t>(std::min<std::uint64_t>(chunk.size(), end - offset));
        _file.readAt(offset, chunk.data(), length);
        if (EVP_DigestVerifyUpdate(digest.get(), chunk.data(), length) != 1) {
            throw notSigned(_file.path(), "signature cannot be checked");
        }
        offset += length;
    }

    const SignatureBytes& signature = _trailer.signature;
    if (EVP_DigestVerifyFinal(digest.get(), signature.data(), signature.size()) != 1) {
        throw notSigned(_file.path(), "signature does not match the content");
    }
}

}  // namespace quillon
