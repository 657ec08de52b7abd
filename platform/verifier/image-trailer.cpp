#include "platform/verifier/image-trailer.h"

#include <algorithm>

#include "platform/verifier/hex-text.h"
#include "platform/verifier/image-error.h"

namespace quillon {
namespace {

constexpr std::array<unsigned char, 8> kMagic = {'Q', 'U', 'I', 'L', 'L', 'S', 'I', 'G'};
constexpr std::size_t kFormatOffset = 8;
constexpr std::size_t kKeyIdOffset = 14;

// Format 1
constexpr std::uint16_t kAlgorithm = 1;
constexpr std::size_t kAlgorithmOffset = 10;
constexpr std::size_t kLengthOffset = 12;

// Format 2
constexpr std::size_t kCounterOffset = 10;
constexpr std::size_t kModuleCheckOffset = 18;
constexpr std::size_t kModelCheckOffset = 20;
constexpr std::size_t kShortKeyIdSize = 4;

template <typename Number>
Number readNumber(const TrailerBytes& bytes, std::size_t offset)
{
    std::uint32_t number = 0;
    for (std::size_t i = sizeof(Number); i > 0; --i) {
        number = (number << 8U) | bytes[offset + i - 1];
    }
    return static_cast<Number>(number);
}

template <typename Number>
void writeNumber(TrailerBytes& bytes, std::size_t offset, Number number)
{
    for (std::size_t i = 0; i < sizeof number; ++i) {
        bytes[offset + i] = static_cast<unsigned char>((number >> (8U * i)) & 0xFFU);
    }
}

std::size_t keyIdSize(const ImageTrailer& trailer)
{
    return trailer.format == 1 ? trailer.keyId.size() : kShortKeyIdSize;
}

void requireFormat1(const TrailerBytes& bytes, const std::string& path)
{
    if (readNumber<std::uint16_t>(bytes, kAlgorithmOffset) != kAlgorithm) {
        throw notSigned(path, "trailer has an unknown algorithm");
    }
    if (readNumber<std::uint16_t>(bytes, kLengthOffset) != kSignatureSize) {
        throw notSigned(path, "trailer has a wrong signature length");
    }
}

}  // namespace

ImageTrailer parseTrailer(const TrailerBytes& bytes, const std::string& path)
{
    if (!std::equal(kMagic.begin(), kMagic.end(), bytes.begin())) {
        throw notSigned(path, "trailer has no signature (bad magic)");
    }
    ImageTrailer trailer;
    trailer.format = readNumber<std::uint16_t>(bytes, kFormatOffset);
    switch (trailer.format) {
        case 1:
            requireFormat1(bytes, path);
            break;
        case 2:
            trailer.counter = readNumber<std::uint32_t>(bytes, kCounterOffset);
            std::copy_n(&bytes[kModuleCheckOffset], trailer.moduleCheck.size(),
                        trailer.moduleCheck.begin());
            std::copy_n(&bytes[kModelCheckOffset], trailer.modelCheck.size(),
                        trailer.modelCheck.begin());
            break;
        default:
            throw notSigned(path, "trailer has an unknown format");
    }
    std::copy_n(&bytes[kKeyIdOffset], keyIdSize(trailer), trailer.keyId.begin());
    std::copy_n(&bytes[kTrailerHeaderSize], trailer.signature.size(), trailer.signature.begin());
    return trailer;
}

TrailerBytes encodeTrailer(const ImageTrailer& trailer)
{
    TrailerBytes bytes{};
    std::copy(kMagic.begin(), kMagic.end(), bytes.begin());
    writeNumber(bytes, kFormatOffset, trailer.format);
    if (trailer.format == 1) {
        writeNumber(bytes, kAlgorithmOffset, kAlgorithm);
        writeNumber(bytes, kLengthOffset, static_cast<std::uint16_t>(kSignatureSize));
    } else {
        writeNumber(bytes, kCounterOffset, trailer.counter);
        std::copy(trailer.moduleCheck.begin(), trailer.moduleCheck.end(),
                  &bytes[kModuleCheckOffset]);
        std::copy(trailer.modelCheck.begin(), trailer.modelCheck.end(), &bytes[kModelCheckOffset]);
    }
    std::copy_n(trailer.keyId.begin(), keyIdSize(trailer), &bytes[kKeyIdOffset]);
    std::copy(trailer.signature.begin(), trailer.signature.end(), &bytes[kTrailerHeaderSize]);
    return bytes;
}

bool namesKey(const ImageTrailer& trailer, const KeyId& keyId)
{
    return std::equal(keyId.begin(), keyId.begin() + keyIdSize(trailer), trailer.keyId.begin());
}

std::string keyIdText(const ImageTrailer& trailer)
{
    return hexText(trailer.keyId.data(), keyIdSize(trailer));
}

}  // namespace quillon
