#include "platform/verifier/image-signature.h"

#include <openssl/rsa.h>

#include <algorithm>

#include "base/handles.h"
#include "platform/verifier/image-error.h"
#include "platform/verifier/public-key.h"

namespace quillon {
namespace {

constexpr std::size_t kLongestModel = 64;

using Bytes = std::vector<unsigned char>;

bool isPrintable(unsigned char character)
{
    return character >= 0x20 && character <= 0x7E;
}

const EVP_MD* digestOf(const ImageTrailer& trailer)
{
    return trailer.format == 1 ? EVP_sha256() : EVP_sha512();
}

/// @return none when it cannot be computed.
Bytes digestOf(const Bytes& bytes, const EVP_MD* algorithm)
{
    Bytes digest(static_cast<std::size_t>(EVP_MD_size(algorithm)));
    const bool done =
        EVP_Digest(bytes.data(), bytes.size(), digest.data(), nullptr, algorithm, nullptr) == 1;
    return done ? digest : Bytes();
}

void append(Bytes& bytes, const std::string& text)
{
    bytes.insert(bytes.end(), text.begin(), text.end());
    bytes.push_back('\0');
}

bool prepare(EVP_PKEY_CTX* context, const EVP_MD* digest)
{
    return useImagePadding(context, digest) && EVP_PKEY_CTX_set_signature_md(context, digest) == 1;
}

}  // namespace

bool isModelName(const std::string& text)
{
    return !text.empty() && text.size() <= kLongestModel && text.front() != ' ' &&
           text.back() != ' ' && std::all_of(text.begin(), text.end(), isPrintable);
}

CheckValue checkValueOf(const std::string& text)
{
    const Bytes digest = digestOf(Bytes(text.begin(), text.end()), EVP_sha256());
    CheckValue value{};
    if (digest.size() < value.size()) {
        throw ImageError(ImageFault::kSignature, "a check value cannot be computed");
    }
    std::copy_n(digest.begin(), value.size(), value.begin());
    return value;
}

bool useImagePadding(EVP_PKEY_CTX* context, const EVP_MD* digest)
{
    return EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PSS_PADDING) == 1 &&
           EVP_PKEY_CTX_set_rsa_pss_saltlen(context, EVP_MD_size(digest)) == 1 &&
           EVP_PKEY_CTX_set_rsa_mgf1_md(context, digest) == 1;
}

Bytes signedDigest(const ImageTrailer& trailer, const ContentDigest& content,
                   const ImagePurpose& purpose)
{
    if (trailer.format == 1) {
        return {content.begin(), content.end()};
    }
    const TrailerBytes header = encodeTrailer(trailer);
    Bytes bytes(header.begin(), header.begin() + kTrailerHeaderSize);
    bytes.insert(bytes.end(), content.begin(), content.end());
    append(bytes, purpose.module);
    append(bytes, purpose.model);
    return digestOf(bytes, digestOf(trailer));
}

ImageTrailer unsignedTrailer(const std::optional<ImagePurpose>& purpose, const EVP_PKEY* key)
{
    ImageTrailer trailer;
    if (purpose) {
        trailer.format = 2;
        trailer.counter = purpose->counter;
        trailer.moduleCheck = checkValueOf(purpose->module);
        trailer.modelCheck = checkValueOf(purpose->model);
    }
    trailer.keyId = keyIdOf(key);
    return trailer;
}

ImageTrailer signImage(const ContentDigest& content, const std::optional<ImagePurpose>& purpose,
                       EVP_PKEY* key)
{
    ImageTrailer trailer = unsignedTrailer(purpose, key);
    const Bytes digest = signedDigest(trailer, content, purpose.value_or(ImagePurpose()));
    const UniqueKeyContext context(EVP_PKEY_CTX_new(key, nullptr));
    std::size_t length = trailer.signature.size();
    if (!context || EVP_PKEY_sign_init(context.get()) != 1 ||
        !prepare(context.get(), digestOf(trailer)) ||
        EVP_PKEY_sign(context.get(), trailer.signature.data(), &length, digest.data(),
                      digest.size()) != 1 ||
        length != trailer.signature.size()) {
        throw ImageError(ImageFault::kKey, "signing key cannot sign");
    }
    return trailer;
}

void requireSignature(const ImageTrailer& trailer, const ContentDigest& content,
                      const ImagePurpose& purpose, EVP_PKEY* key, const std::string& path)
{
    const UniqueKeyContext context(EVP_PKEY_CTX_new(key, nullptr));
    if (!context || EVP_PKEY_verify_init(context.get()) != 1 ||
        !prepare(context.get(), digestOf(trailer))) {
        throw notSigned(path, "signature cannot be checked with this key");
    }
    const Bytes digest = signedDigest(trailer, content, purpose);
    const SignatureBytes& signature = trailer.signature;
    if (EVP_PKEY_verify(context.get(), signature.data(), signature.size(), digest.data(),
                        digest.size()) != 1) {
        throw notSigned(path, trailer.format == 1
                                  ? "signature does not match the content"
                                  : "signature does not match the content, module and model");
    }
}

}  // namespace quillon
