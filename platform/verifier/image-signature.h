#ifndef QUILLON_PLATFORM_VERIFIER_IMAGE_SIGNATURE_H
#define QUILLON_PLATFORM_VERIFIER_IMAGE_SIGNATURE_H

#include <openssl/evp.h>

#include <array>
#include <string>

#include "image-trailer.h"

namespace quillon {

/// SHA-256 over every byte of a file before its trailer.
using ContentDigest = std::array<unsigned char, 32>;

/// Sets a signing or verifying context to the trailer's one algorithm.
/// @return whether OpenSSL took it.
bool useImagePadding(EVP_PKEY_CTX* context);

/// Checks a trailer's signature.
/// @param path  the file that ends in the trailer, for the error's line only
/// @param key   an RSA-4096 public key
/// @throws ImageError with ImageFault::Signature when the signature is not this key's over this
///         content.
void requireSignature(const ImageTrailer& trailer, const ContentDigest& content, EVP_PKEY* key,
                      const std::string& path);

}  // namespace quillon

#endif
