#pragma once

#include <dlfcn.h>
#include <openssl/bio.h>
#include <openssl/evp.h>

#include <cstdlib>
#include <memory>

#include "base/fd.h"

/// Owners of everything that must be given back: each gives its handle back exactly once.
namespace quillon {

using UniqueBio = std::unique_ptr<BIO, ReleaseWith<&BIO_free_all>>;
using UniqueKey = std::unique_ptr<EVP_PKEY, ReleaseWith<&EVP_PKEY_free>>;
using UniqueKeyContext = std::unique_ptr<EVP_PKEY_CTX, ReleaseWith<&EVP_PKEY_CTX_free>>;
using UniqueCipherContext = std::unique_ptr<EVP_CIPHER_CTX, ReleaseWith<&EVP_CIPHER_CTX_free>>;
using UniqueDigestContext = std::unique_ptr<EVP_MD_CTX, ReleaseWith<&EVP_MD_CTX_free>>;

/// Memory from malloc, calloc or a platform call that asks for free().
template <typename T>
using UniqueMemory = std::unique_ptr<T, ReleaseWith<&std::free>>;

struct LibraryCloser
{
    void operator()(void* handle) const
    {
        if (handle != nullptr) {
            static_cast<void>(dlclose(handle));
        }
    }
};
/// A handle of dlopen that copies share; it is closed once, after the last of them.
using SharedLibrary = std::shared_ptr<void>;

}  // namespace quillon
