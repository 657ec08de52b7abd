#pragma once

#include <cstdint>

#include "support/checksum-slicing.h"

namespace quillon {

/// What moves a lane of 128 bits on by a distance in bits, as carry-less multiplication needs it:
/// one constant for each of its halves, computed from the polynomial.
struct ChecksumDistance
{
    explicit ChecksumDistance(unsigned int bits) : high(powerOfX(bits + 64)), low(powerOfX(bits)) {}

    std::uint64_t high;
    std::uint64_t low;

private:
    /// x^exponent modulo the polynomial.
    static std::uint64_t powerOfX(unsigned int exponent)
    {
        std::uint32_t power = 1;
        for (unsigned int i = 0; i < exponent; ++i) {
            const bool carry = (power & 0x80000000U) != 0;
            power <<= 1U;
            if (carry) {
                power ^= kChecksumPolynomial;
            }
        }
        return power;
    }
};

}  // namespace quillon
