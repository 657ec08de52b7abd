#include "support/checksum-wide-folding.h"

#include "support/checksum-slicing.h"

#if defined(__x86_64__)

#include <immintrin.h>

#include <array>

#include "support/checksum-distance.h"

// Every function that uses the instructions carries their names, since the program as a whole is
// built for processors without them.
#define QUILLON_WIDE_FOLDING __attribute__((target("vpclmulqdq,avx2")))

namespace quillon {
namespace {

/// Two lanes of 16 bytes each, the first bytes of the message in the lower one; within a lane the
/// first byte is the most significant.
using Lanes = __m256i;

constexpr std::size_t kRegisters = 8;
constexpr std::size_t kRegisterBytes = 32;
constexpr std::size_t kStepBytes = kRegisters * kRegisterBytes;

QUILLON_WIDE_FOLDING inline Lanes reversed(Lanes bytes)
{
    const __m128i order = _mm_set_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
    return _mm256_shuffle_epi8(bytes, _mm256_broadcastsi128_si256(order));
}

QUILLON_WIDE_FOLDING inline Lanes load(const unsigned char* bytes)
{
    return reversed(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(bytes)));
}

QUILLON_WIDE_FOLDING inline __m128i laneOf(std::uint64_t high, std::uint64_t low)
{
    return _mm_set_epi64x(static_cast<long long>(high), static_cast<long long>(low));
}

QUILLON_WIDE_FOLDING inline Lanes bothBy(const ChecksumDistance& distance)
{
    return _mm256_broadcastsi128_si256(laneOf(distance.high, distance.low));
}

/// The lanes moved on by the constants' distance, plus the lanes that stand there.
QUILLON_WIDE_FOLDING inline Lanes fold(Lanes lanes, Lanes constants, Lanes there)
{
    const Lanes high = _mm256_clmulepi64_epi128(lanes, constants, 0x11);
    const Lanes low = _mm256_clmulepi64_epi128(lanes, constants, 0x00);
    return _mm256_xor_si256(_mm256_xor_si256(high, low), there);
}

}  // namespace

bool canFoldChecksumWide()
{
    return __builtin_cpu_supports("vpclmulqdq") != 0 && __builtin_cpu_supports("avx2") != 0;
}

QUILLON_WIDE_FOLDING std::uint32_t checksumByWideFolding(std::uint32_t crc,
                                                         const unsigned char* data,
                                                         std::size_t size)
{
    if (size < 2 * kStepBytes) {
        return checksumBySlicing(crc, data, size);
    }
    static const ChecksumDistance step(8 * kStepBytes);
    static const ChecksumDistance oneRegister(8 * kRegisterBytes);
    const Lanes byStep = bothBy(step);
    const Lanes byRegister = bothBy(oneRegister);

    Lanes registers[kRegisters];
    for (std::size_t i = 0; i < kRegisters; ++i) {
        registers[i] = load(data + i * kRegisterBytes);
    }
    const Lanes before = _mm256_zextsi128_si256(laneOf(std::uint64_t{crc} << 32U, 0));
    registers[0] = _mm256_xor_si256(registers[0], before);
    data += kStepBytes;
    size -= kStepBytes;
    for (; size >= kStepBytes; data += kStepBytes, size -= kStepBytes) {
        for (std::size_t i = 0; i < kRegisters; ++i) {
            registers[i] = fold(registers[i], byStep, load(data + i * kRegisterBytes));
        }
    }

    Lanes all = registers[0];
    for (std::size_t i = 1; i < kRegisters; ++i) {
        all = fold(all, byRegister, registers[i]);
    }
    std::array<unsigned char, kRegisterBytes> rest{};
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(rest.data()), reversed(all));
    return checksumBySlicing(checksumBySlicing(0, rest.data(), rest.size()), data, size);
}

}  // namespace quillon

#else

namespace quillon {

bool canFoldChecksumWide()
{
    return false;
}

std::uint32_t checksumByWideFolding(std::uint32_t crc, const unsigned char* data, std::size_t size)
{
    return checksumBySlicing(crc, data, size);
}

}  // namespace quillon

#endif
