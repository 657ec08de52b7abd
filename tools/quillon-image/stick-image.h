/// The image of one module on a USB stick.
///
///     offset     bytes           content
///          0        16           initialisation vector
///         16        size - 550   AES-256-CBC ciphertext with PKCS#7 padding of:
///                                  64 bytes  version text, NUL-terminated and NUL-padded
///                                  the rest  payload
///     size - 534   534           signature trailer (image-trailer.h)
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/verifier/image-error.h"
#include "platform/verifier/image-trailer.h"
#include "platform/verifier/trust-policy.h"
#include "tools/quillon-image/keys.h"

namespace quillon {

constexpr std::size_t kInitialisationVectorSize = 16;
constexpr std::size_t kCipherBlockSize = 16;
constexpr std::size_t kVersionHeaderSize = 64;

/// The service counts an image's bytes in a 32-bit int and refuses what does not fit.
constexpr std::uint64_t kLargestImage = 0x7FFFFFFF;

using InitialisationVector = std::array<unsigned char, kInitialisationVectorSize>;

/// What a stick image tells without its key.
struct StickImageInfo
{
    std::uint64_t size = 0;            ///< of the whole file, in bytes
    std::uint64_t ciphertextSize = 0;  ///< in bytes
    InitialisationVector vector{};
    ImageTrailer trailer;  ///< what it claims
};

/// @throws ImageError with ImageFault::kUsage for a text that is not 1 to 63 printable ASCII
///         characters.
void requireVersion(const std::string& version);

/// Makes a stick image out of a payload file. Works in pieces: memory does not grow with the image.
///
/// @param version      1 to 63 printable ASCII characters
/// @param payloadPath  a regular file, which may be empty
/// @param signingKey   an RSA-4096 private key
/// @param outputPath   the image; appears whole or not at all and replaces an earlier file
/// @param purpose      what the image is for, in a trailer of format 2; nothing: format 1
/// @throws ImageError: ImageFault::kUsage for the version or the purpose, ImageFault::kFile for
///         either file, ImageFault::kFormat when the image would be too large, ImageFault::kKey
///         when the signing key cannot sign.
void buildStickImage(const std::string& version, const std::string& payloadPath,
                     const ImageKey& imageKey, EVP_PKEY* signingKey, const std::string& outputPath,
                     const std::optional<ImagePurpose>& purpose = std::nullopt);

/// @return the file's path on a stick: DIRECTORY/MODULE.bin.
/// @param module  the module's firmware name: ASCII letters and digits
/// @throws ImageError with ImageFault::kUsage when the name cannot be a firmware name.
std::string stickImagePath(const std::string& directory, const std::string& module);

/// Reads what stands around the ciphertext. Checks sizes and the trailer's header, not the
/// signature.
/// @throws ImageError: ImageFault::kFile, ImageFault::kFormat, ImageFault::kSignature.
StickImageInfo inspectStickImage(const std::string& path);

/// Deciphers the version header only.
/// @return the version text.
/// @throws ImageError as inspectStickImage, and ImageFault::kKey when the header is not one.
std::string readStickImageVersion(const std::string& path, const ImageKey& imageKey);

/// Deciphers an image. Checks the version header and the padding, not the signature.
/// @param payloadPath  receives the payload; appears whole or not at all
/// @return the version text.
/// @throws ImageError as readStickImageVersion.
std::string extractStickImage(const std::string& path, const ImageKey& imageKey,
                              const std::string& payloadPath);

/// Checks an image against a policy and its signature against one public key.
/// @throws ImageError: ImageFault::kFile, ImageFault::kFormat, ImageFault::kSignature, and
///         ImageFault::kKey when the key file is unusable.
void verifyStickImage(const std::string& path, const std::string& publicKeyPath,
                      const TrustPolicy& policy = {});

/// Checks an image against a policy and its signature against the keys (*.pem) in a directory, as a
/// device does.
/// @return path of the key that signed it.
/// @throws ImageError as verifyStickImage.
std::string verifyStickImageByDirectory(const std::string& path, const std::string& directory,
                                        const Complain& complain, const TrustPolicy& policy = {});

}  // namespace quillon
