/// The 534 bytes at the end of a signed file: a 22-byte header and a 512-byte signature.
///
///     offset  bytes  content
///          0      8  "QUILLSIG"
///          8      2  format, 1
///         10      2  algorithm, 1: RSA-4096, PSS padding, SHA-256, MGF1 with SHA-256, 32-byte salt
///         12      2  length of the signature, 512
///         14      8  key id: first bytes of SHA-256 over the DER SubjectPublicKeyInfo of the key
///         22    512  signature over every byte of the file before the trailer
///
/// Numbers are little-endian.
#ifndef QUILLON_PLATFORM_VERIFIER_IMAGE_TRAILER_H
#define QUILLON_PLATFORM_VERIFIER_IMAGE_TRAILER_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace quillon {

constexpr std::size_t kTrailerHeaderSize = 22;
constexpr std::size_t kSignatureSize = 512;
constexpr std::size_t kTrailerSize = kTrailerHeaderSize + kSignatureSize;

constexpr std::uint16_t kTrailerFormat = 1;
constexpr std::uint16_t kTrailerAlgorithm = 1;
constexpr int kSaltSize = 32;

/// Tells which of several keys to try; says nothing about who signed.
using KeyId = std::array<unsigned char, 8>;
using SignatureBytes = std::array<unsigned char, kSignatureSize>;
using TrailerBytes = std::array<unsigned char, kTrailerSize>;

struct ImageTrailer
{
    KeyId keyId{};
    SignatureBytes signature{};
};

/// Reads a trailer. Only the one known format and algorithm are accepted.
/// @param path  the file that ends in it, for the error's line only
/// @throws ImageError with ImageFault::Signature.
ImageTrailer parseTrailer(const TrailerBytes& bytes, const std::string& path);

/// Lays a trailer out as it stands in a file.
TrailerBytes encodeTrailer(const ImageTrailer& trailer);

/// @return the sixteen lowercase hexadecimal digits of a key id.
std::string toText(const KeyId& keyId);

}  // namespace quillon

#endif
