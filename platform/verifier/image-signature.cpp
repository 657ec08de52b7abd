#include "image-signature.h"

#include <openssl/rsa.h>

#include "image-error.h"
#include "openssl-handle.h"

namespace quillon {

bool useImagePadding(EVP_PKEY_CTX* context)
{
    return EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PSS_PADDING) == 1 &&
           EVP_PKEY_CTX_set_rsa_pss_saltlen(context, kSaltSize) == 1 &&
           EVP_PKEY_CTX_set_rsa_mgf1_md(context, EVP_sha256()) == 1;
}

void requireSignature(const ImageTrailer& trailer, const ContentDigest& content, EVP_PKEY* key,
                      const std::string& path)
{
    const UniqueKeyContext context(EVP_PKEY_CTX_new(key, nullptr));
    if (!context || EVP_PKEY_verify_init(context.get()) != 1 || !useImagePadding(context.get()) ||
        EVP_PKEY_CTX_set_signature_md(context.get(), EVP_sha256()) != 1) {
        throw notSigned(path, "signature cannot be checked with this key");
    }
    const SignatureBytes& signature = trailer.signature;
    if (EVP_PKEY_verify(context.get(), signature.data(), signature.size(), content.data(),
                        content.size()) != 1) {
        throw notSigned(path, "signature does not match the content");
    }
}

}  // namespace quillon
