#include "tools/quillon-image/reproducible-signature.h"

#include <openssl/rsa.h>

#include <algorithm>
#include <vector>

#include "base/handles.h"
#include "platform/verifier/image-error.h"

namespace quillon {
namespace {

using Bytes = std::vector<unsigned char>;

constexpr char kSaltLabel[] = "Quillon image signature salt";  // counts with its NUL
constexpr unsigned char kPssTrailer = 0xBC;
constexpr unsigned char kFirstBits = 0x7F;  // the encoded message has one bit less than the key

Bytes hash(Bytes bytes, const Bytes& more, const EVP_MD* algorithm)
{
    bytes.insert(bytes.end(), more.begin(), more.end());
    Bytes digest(static_cast<std::size_t>(EVP_MD_size(algorithm)));
    if (EVP_Digest(bytes.data(), bytes.size(), digest.data(), nullptr, algorithm, nullptr) != 1) {
        throw ImageError(ImageFault::kKey, "the signed digest cannot be computed");
    }
    return digest;
}

/// Adds the bytes of MGF1 to a block (RFC 8017, B.2.1).
void mask(unsigned char* block, std::size_t length, const Bytes& seed, const EVP_MD* algorithm)
{
    for (std::size_t done = 0, counter = 0; done < length; ++counter) {
        const Bytes piece = hash(seed, {0, 0, 0, static_cast<unsigned char>(counter)}, algorithm);
        for (std::size_t i = 0; i < piece.size() && done < length; ++i, ++done) {
            block[done] ^= piece[i];
        }
    }
}

/// EMSA-PSS (RFC 8017, 9.1.1) with a salt of our own, which OpenSSL's padding does not take.
SignatureBytes encodePss(const Bytes& digest, const EVP_MD* algorithm)
{
    if (digest.empty()) {
        throw ImageError(ImageFault::kKey, "the signed digest cannot be computed");
    }
    const Bytes salt = hash(Bytes(std::begin(kSaltLabel), std::end(kSaltLabel)), digest, algorithm);
    Bytes start(8, 0);
    start.insert(start.end(), digest.begin(), digest.end());
    const Bytes sealed = hash(start, salt, algorithm);

    SignatureBytes encoded{};
    const std::size_t masked = encoded.size() - sealed.size() - 1;
    encoded[masked - salt.size() - 1] = 1;
    std::copy(salt.begin(), salt.end(), &encoded[masked - salt.size()]);
    mask(encoded.data(), masked, sealed, algorithm);
    encoded.front() &= kFirstBits;
    std::copy(sealed.begin(), sealed.end(), &encoded[masked]);
    encoded.back() = kPssTrailer;
    return encoded;
}

}  // namespace

ImageTrailer signImageReproducibly(const ContentDigest& content,
                                   const std::optional<ImagePurpose>& purpose, EVP_PKEY* key)
{
    ImageTrailer trailer = unsignedTrailer(purpose, key);
    const SignatureBytes encoded =
        encodePss(signedDigest(trailer, content, purpose.value_or(ImagePurpose())),
                  trailer.format == 1 ? EVP_sha256() : EVP_sha512());
    const UniqueKeyContext context(EVP_PKEY_CTX_new(key, nullptr));
    std::size_t length = trailer.signature.size();
    if (!context || EVP_PKEY_sign_init(context.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_NO_PADDING) != 1 ||
        EVP_PKEY_sign(context.get(), trailer.signature.data(), &length, encoded.data(),
                      encoded.size()) != 1 ||
        length != trailer.signature.size()) {
        throw ImageError(ImageFault::kKey, "signing key cannot sign reproducibly");
    }
    return trailer;
}

}  // namespace quillon
