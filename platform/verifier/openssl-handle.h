#ifndef QUILLON_PLATFORM_VERIFIER_OPENSSL_HANDLE_H
#define QUILLON_PLATFORM_VERIFIER_OPENSSL_HANDLE_H

#include <openssl/bio.h>
#include <openssl/evp.h>

#include <memory>

namespace quillon {

/// Releases an OpenSSL object with the function that belongs to its type.
template <auto release>
struct OpensslRelease
{
    template <typename Object>
    void operator()(Object* object) const
    {
        release(object);
    }
};

using UniqueKey = std::unique_ptr<EVP_PKEY, OpensslRelease<&EVP_PKEY_free>>;
using UniqueKeyContext = std::unique_ptr<EVP_PKEY_CTX, OpensslRelease<&EVP_PKEY_CTX_free>>;
using UniqueDigest = std::unique_ptr<EVP_MD_CTX, OpensslRelease<&EVP_MD_CTX_free>>;
using UniqueCipher = std::unique_ptr<EVP_CIPHER_CTX, OpensslRelease<&EVP_CIPHER_CTX_free>>;
using UniqueBio = std::unique_ptr<BIO, OpensslRelease<&BIO_free_all>>;

}  // namespace quillon

#endif
