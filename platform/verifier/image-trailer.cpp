#include "image-trailer.h"

#include <algorithm>

#include "hex-text.h"
#include "image-error.h"

namespace quillon {
namespace {

constexpr std::array<unsigned char, 8> kMagic = {'Q', 'U', 'I', 'L', 'L', 'S', 'I', 'G'};
constexpr std::size_t kFormatOffset = 8;
constexpr std::size_t kAlgorithmOffset = 10;
constexpr std::size_t kLengthOffset = 12;
constexpr std::size_t kKeyIdOffset = 14;

unsigned readNumber(const TrailerBytes& bytes, std::size_t offset)
{
    return bytes[offset] | (static_cast<unsigned>(bytes[offset + 1]) << 8U);
}

void writeNumber(TrailerBytes& bytes, std::size_t offset, std::size_t number)
{
    bytes[offset] = static_cast<unsigned char>(number & 0xFFU);
    bytes[offset + 1] = static_cast<unsigned char>((number >> 8U) & 0xFFU);
}

}  // namespace

ImageTrailer parseTrailer(const TrailerBytes& bytes, const std::string& path)
{
    if (!std::equal(kMagic.begin(), kMagic.end(), bytes.begin())) {
        throw notSigned(path, "trailer has no signature (bad magic)");
    }
    if (readNumber(bytes, kFormatOffset) != kTrailerFormat) {
        throw notSigned(path, "trailer has an unknown format");
    }
    if (readNumber(bytes, kAlgorithmOffset) != kTrailerAlgorithm) {
        throw notSigned(path, "trailer has an unknown algorithm");
    }
    if (readNumber(bytes, kLengthOffset) != kSignatureSize) {
        throw notSigned(path, "trailer has a wrong signature length");
    }

    ImageTrailer trailer;
    std::copy_n(&bytes[kKeyIdOffset], trailer.keyId.size(), trailer.keyId.begin());
    std::copy_n(&bytes[kTrailerHeaderSize], trailer.signature.size(), trailer.signature.begin());
    return trailer;
}

TrailerBytes encodeTrailer(const ImageTrailer& trailer)
{
    TrailerBytes bytes{};
    std::copy(kMagic.begin(), kMagic.end(), bytes.begin());
    writeNumber(bytes, kFormatOffset, kTrailerFormat);
    writeNumber(bytes, kAlgorithmOffset, kTrailerAlgorithm);
    writeNumber(bytes, kLengthOffset, kSignatureSize);
    std::copy(trailer.keyId.begin(), trailer.keyId.end(), &bytes[kKeyIdOffset]);
    std::copy(trailer.signature.begin(), trailer.signature.end(), &bytes[kTrailerHeaderSize]);
    return bytes;
}

std::string toText(const KeyId& keyId)
{
    return hexText(keyId.data(), keyId.size());
}

}  // namespace quillon
