/// The 534 bytes at the end of a signed file: a 22-byte header and a 512-byte signature.
///
/// Format 1 says who made the content:
///
///     offset  bytes  content
///          0      8  "QUILLSIG"
///          8      2  format, 1
///         10      2  algorithm, 1: RSA-4096, PSS padding, SHA-256, MGF1 with SHA-256, 32-byte salt
///         12      2  length of the signature, 512
///         14      8  key id: first bytes of SHA-256 over the DER SubjectPublicKeyInfo of the key
///         22    512  signature over every byte of the file before the trailer
///
/// Format 2 says as well for which module and which model of device, and how old it is:
///
///     offset  bytes  content
///          0      8  "QUILLSIG"
///          8      2  format, 2
///         10      4  security counter
///         14      4  key id: as above, but shorter
///         18      2  check value of the module's firmware name
///         20      2  check value of the device's model
///         22    512  signature: RSA-4096, PSS padding, SHA-512, MGF1 with SHA-512, 64-byte salt,
///                    over this header, SHA-256 over every byte of the file before the trailer, the
///                    firmware name, a NUL, the model, a NUL
///
/// A check value is the first two bytes of SHA-256 over the text. It tells what is wrong about an
/// image, no more: the signature covers the texts themselves. Another digest than that of format 1
/// keeps a signature of one format from ever being one of the other.
///
/// Numbers are little-endian.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace quillon {

constexpr std::size_t kTrailerHeaderSize = 22;
constexpr std::size_t kSignatureSize = 512;
constexpr std::size_t kTrailerSize = kTrailerHeaderSize + kSignatureSize;

/// Tells which of several keys to try; says nothing about who signed.
using KeyId = std::array<unsigned char, 8>;
using CheckValue = std::array<unsigned char, 2>;
using SignatureBytes = std::array<unsigned char, kSignatureSize>;
using TrailerBytes = std::array<unsigned char, kTrailerSize>;

struct ImageTrailer
{
    std::uint16_t format = 1;   ///< 1 or 2
    KeyId keyId{};              ///< of format 2, the first four bytes alone count
    std::uint32_t counter = 0;  ///< of format 2
    CheckValue moduleCheck{};   ///< of format 2
    CheckValue modelCheck{};    ///< of format 2
    SignatureBytes signature{};
};

/// Reads a trailer. Only the two known formats and their algorithms are accepted.
/// @param path  the file that ends in it, for the error's line only
/// @throws ImageError with ImageFault::kSignature.
ImageTrailer parseTrailer(const TrailerBytes& bytes, const std::string& path);

/// Lays a trailer out as it stands in a file.
TrailerBytes encodeTrailer(const ImageTrailer& trailer);

/// @return whether the trailer names the key with this id.
bool namesKey(const ImageTrailer& trailer, const KeyId& keyId);

/// @return what the trailer says about its key, in lowercase hexadecimal digits.
std::string keyIdText(const ImageTrailer& trailer);

}  // namespace quillon
