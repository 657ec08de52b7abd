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
#include <functional>
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

/// @throws ImageError with ImageFault::kUsage when module or model cannot be a name.
void requirePurpose(const ImagePurpose& purpose);

/// Where an image's initialisation vector and the signature's salt come from.
enum class Making {
    kRandom,       ///< from the random number generator: no two images are the same
    kReproducible  ///< from key and content: the same input gives the same bytes, and so tells
                   ///< whoever sees two images without the key that their content is the same
};

/// Makes a stick image out of a payload file. Works in pieces: memory does not grow with the image.
/// SIGHUP, SIGINT and SIGTERM take effect once nothing temporary is left.
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
                     const std::optional<ImagePurpose>& purpose = std::nullopt,
                     Making making = Making::kRandom);

/// Judges an image whose content was read whole.
/// @return what the new trailer is for, as buildStickImage's purpose.
/// Throws to refuse the image.
using Resigner = std::function<std::optional<ImagePurpose>(const ImageTrailer& trailer,
                                                           const ContentDigest& content)>;

/// Gives an image another trailer. Vector and ciphertext stay as they are, so no image key is
/// needed. Works in pieces, and takes signals as buildStickImage.
/// @param outputPath  the new image, which may be the old one's path; as of buildStickImage
/// @throws ImageError as inspectStickImage and buildStickImage, and what judge throws.
void resignStickImage(const std::string& path, const Resigner& judge, EVP_PKEY* signingKey,
                      const std::string& outputPath, Making making = Making::kRandom);

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

/// SHA-256 of an image's parts, in lowercase hexadecimal digits.
struct StickImageDigests
{
    std::string ciphertext;
    std::string signature;
    std::string payload;  ///< empty without the key
};

/// Reads a whole image. Checks the version header and the padding where there is a key.
/// @throws ImageError as readStickImageVersion.
StickImageDigests digestStickImage(const std::string& path, const std::optional<ImageKey>& key);

/// Whose signature an image has to bear.
struct Signers
{
    std::string publicKey;  ///< this key file's; empty: that of any in the directory
    std::string directory;  ///< of key files, *.pem
    Complain complain;      ///< as of requireTrustedSignature
};

/// Checks a trailer's signature. The parameters are those of requireTrustedSignature.
/// @return path of the key that signed it.
/// @throws ImageError: ImageFault::kSignature, and ImageFault::kFile or ImageFault::kKey when the
///         public key's file is unusable.
std::string requireSignedBy(const Signers& signers, const ImageTrailer& trailer,
                            const std::string& path, const ImagePurpose& purpose,
                            const std::function<ContentDigest()>& digest);

/// Checks an image against a policy and its signature, as a device does.
/// @return path of the key that signed it.
/// @throws ImageError: ImageFault::kFile, ImageFault::kFormat, ImageFault::kSignature, and
///         ImageFault::kKey when the key file is unusable.
std::string verifyStickImage(const std::string& path, const Signers& signers,
                             const TrustPolicy& policy = {});

}  // namespace quillon
