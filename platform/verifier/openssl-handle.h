#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>

#include <memory>

#include "base/fd.h"

namespace quillon {

using UniqueKey = std::unique_ptr<EVP_PKEY, ReleaseWith<&EVP_PKEY_free>>;
using UniqueKeyContext = std::unique_ptr<EVP_PKEY_CTX, ReleaseWith<&EVP_PKEY_CTX_free>>;
using UniqueDigest = std::unique_ptr<EVP_MD_CTX, ReleaseWith<&EVP_MD_CTX_free>>;
using UniqueCipher = std::unique_ptr<EVP_CIPHER_CTX, ReleaseWith<&EVP_CIPHER_CTX_free>>;
using UniqueBio = std::unique_ptr<BIO, ReleaseWith<&BIO_free_all>>;

}  // namespace quillon
