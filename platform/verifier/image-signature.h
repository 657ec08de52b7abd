#pragma once

#include <openssl/evp.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/verifier/image-trailer.h"

namespace quillon {

/// SHA-256 over every byte of a file before its trailer.
using ContentDigest = std::array<unsigned char, 32>;

/// What an image with a trailer of format 2 is for.
struct ImagePurpose
{
    std::string module;         ///< firmware name, see isModuleName
    std::string model;          ///< of the device, see isModelName
    std::uint32_t counter = 0;  ///< security counter: higher where an older image is unsafe
};

/// @return whether a text can be a device's model: 1 to 64 printable ASCII characters, of which
///         neither the first nor the last is a blank.
bool isModelName(const std::string& text);

/// @throws ImageError with ImageFault::kSignature when SHA-256 cannot be computed.
CheckValue checkValueOf(const std::string& text);

/// Sets a signing or verifying context to the padding of a trailer's algorithm.
/// @param digest  SHA-256 for format 1, SHA-512 for format 2
/// @return whether OpenSSL took it.
bool useImagePadding(EVP_PKEY_CTX* context, const EVP_MD* digest = EVP_sha256());

/// @return a trailer without its signature: of format 2 for a purpose, without one of format 1.
/// @throws ImageError with ImageFault::kKey when the key has no id.
ImageTrailer unsignedTrailer(const std::optional<ImagePurpose>& purpose, const EVP_PKEY* key);

/// @return the digest that a trailer's signature is made over, of the trailer's algorithm; empty
///         when it cannot be computed.
std::vector<unsigned char> signedDigest(const ImageTrailer& trailer, const ContentDigest& content,
                                        const ImagePurpose& purpose);

/// Makes a trailer of format 2 for a purpose, without one of format 1.
/// @param key  an RSA-4096 private key
/// @throws ImageError with ImageFault::kKey when the key cannot sign.
ImageTrailer signImage(const ContentDigest& content, const std::optional<ImagePurpose>& purpose,
                       EVP_PKEY* key);

/// Checks a trailer's signature.
/// @param path     the file that ends in the trailer, for the error's line only
/// @param purpose  what a trailer of format 2 has to be made for; its counter does not matter here
/// @param key      an RSA-4096 public key
/// @throws ImageError with ImageFault::kSignature when the signature is not this key's over this
///         content and purpose.
void requireSignature(const ImageTrailer& trailer, const ContentDigest& content,
                      const ImagePurpose& purpose, EVP_PKEY* key, const std::string& path);

}  // namespace quillon
