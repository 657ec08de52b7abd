#include "support/checksum-folding.h"

#include <array>

#include "support/checksum-distance.h"
#include "support/checksum-slicing.h"

// A lane holds 16 bytes of the message, the first of them in its most significant bits. Every
// function that uses the instructions carries their name, since the program as a whole is built for
// processors without them.
#if defined(__x86_64__) || defined(__i386__)

#include <immintrin.h>
#define QUILLON_FOLDING __attribute__((target("pclmul,ssse3")))

namespace quillon {
namespace {

using Lane = __m128i;

QUILLON_FOLDING inline Lane reversed(Lane bytes)
{
    return _mm_shuffle_epi8(bytes,
                            _mm_set_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15));
}

QUILLON_FOLDING inline Lane load(const unsigned char* bytes)
{
    return reversed(_mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes)));
}

QUILLON_FOLDING inline void store(unsigned char* bytes, Lane lane)
{
    _mm_storeu_si128(reinterpret_cast<__m128i*>(bytes), reversed(lane));
}

QUILLON_FOLDING inline Lane laneOf(std::uint64_t high, std::uint64_t low)
{
    return _mm_set_epi64x(static_cast<long long>(high), static_cast<long long>(low));
}

QUILLON_FOLDING inline Lane add(Lane a, Lane b)
{
    return _mm_xor_si128(a, b);
}

/// The lane moved on by the constants' distance, plus the lane that stands there.
QUILLON_FOLDING inline Lane fold(Lane lane, Lane constants, Lane there)
{
    const Lane high = _mm_clmulepi64_si128(lane, constants, 0x11);
    const Lane low = _mm_clmulepi64_si128(lane, constants, 0x00);
    return add(add(high, low), there);
}

}  // namespace

bool canFoldChecksum()
{
    return __builtin_cpu_supports("pclmul") != 0 && __builtin_cpu_supports("ssse3") != 0;
}

}  // namespace quillon

#elif defined(__aarch64__) && defined(__ARM_NEON) && !defined(__AARCH64EB__)

#include <arm_neon.h>
#include <sys/auxv.h>
#if defined(__clang__)
#define QUILLON_FOLDING __attribute__((target("aes")))
#else
#define QUILLON_FOLDING __attribute__((target("+crypto")))
#endif

namespace quillon {
namespace {

using Lane = uint64x2_t;  // element 1 is the more significant half

QUILLON_FOLDING inline Lane load(const unsigned char* bytes)
{
    const uint64x2_t halves = vreinterpretq_u64_u8(vrev64q_u8(vld1q_u8(bytes)));
    return vextq_u64(halves, halves, 1);
}

QUILLON_FOLDING inline void store(unsigned char* bytes, Lane lane)
{
    vst1q_u8(bytes, vrev64q_u8(vreinterpretq_u8_u64(vextq_u64(lane, lane, 1))));
}

QUILLON_FOLDING inline Lane laneOf(std::uint64_t high, std::uint64_t low)
{
    return vcombine_u64(vcreate_u64(low), vcreate_u64(high));
}

QUILLON_FOLDING inline Lane add(Lane a, Lane b)
{
    return veorq_u64(a, b);
}

/// The lane moved on by the constants' distance, plus the lane that stands there.
QUILLON_FOLDING inline Lane fold(Lane lane, Lane constants, Lane there)
{
    const poly64x2_t a = vreinterpretq_p64_u64(lane);
    const poly64x2_t b = vreinterpretq_p64_u64(constants);
    const Lane high = vreinterpretq_u64_p128(vmull_high_p64(a, b));
    const Lane low = vreinterpretq_u64_p128(vmull_p64(vgetq_lane_p64(a, 0), vgetq_lane_p64(b, 0)));
    return add(add(high, low), there);
}

}  // namespace

bool canFoldChecksum()
{
    return (getauxval(AT_HWCAP) & HWCAP_PMULL) != 0;
}

}  // namespace quillon

#endif

namespace quillon {

#if defined(QUILLON_FOLDING)

namespace {

constexpr std::size_t kLanes = 8;
constexpr std::size_t kLaneBytes = 16;
constexpr std::size_t kStepBytes = kLanes * kLaneBytes;

}  // namespace

QUILLON_FOLDING std::uint32_t checksumByFolding(std::uint32_t crc, const unsigned char* data,
                                                std::size_t size)
{
    if (size < 2 * kStepBytes) {
        return checksumBySlicing(crc, data, size);
    }
    static const ChecksumDistance step(8 * kStepBytes);
    static const ChecksumDistance lane(8 * kLaneBytes);
    const Lane byStep = laneOf(step.high, step.low);
    const Lane byLane = laneOf(lane.high, lane.low);

    Lane lanes[kLanes];
    for (std::size_t i = 0; i < kLanes; ++i) {
        lanes[i] = load(data + i * kLaneBytes);
    }
    lanes[0] = add(lanes[0], laneOf(std::uint64_t{crc} << 32U, 0));
    data += kStepBytes;
    size -= kStepBytes;
    for (; size >= kStepBytes; data += kStepBytes, size -= kStepBytes) {
        for (std::size_t i = 0; i < kLanes; ++i) {
            lanes[i] = fold(lanes[i], byStep, load(data + i * kLaneBytes));
        }
    }

    Lane all = lanes[0];
    for (std::size_t i = 1; i < kLanes; ++i) {
        all = fold(all, byLane, lanes[i]);
    }
    std::array<unsigned char, kLaneBytes> rest{};
    store(rest.data(), all);
    return checksumBySlicing(checksumBySlicing(0, rest.data(), rest.size()), data, size);
}

#else

bool canFoldChecksum()
{
    return false;
}

std::uint32_t checksumByFolding(std::uint32_t crc, const unsigned char* data, std::size_t size)
{
    return checksumBySlicing(crc, data, size);
}

#endif

}  // namespace quillon
