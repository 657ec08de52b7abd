#pragma once

#include <cstddef>
#include <cstdint>

namespace quillon {

/// @return whether this processor multiplies without carries: PCLMULQDQ on x86, PMULL on arm64.
bool canFoldChecksum();

/// imageChecksum with carry-less multiplication: eight lanes of 128 bits, each moved 1024 bits on
/// by two multiplications with constants that are computed from the polynomial.
///
/// Source: V. Gopal et al., "Fast CRC Computation for Generic Polynomials Using PCLMULQDQ
/// Instruction", Intel white paper 323102, 2009. Its last reduction is left to checksumBySlicing.
/// Only where canFoldChecksum(). Thread: any; the constants are computed once, on first use.
std::uint32_t checksumByFolding(std::uint32_t crc, const unsigned char* data, std::size_t size);

}  // namespace quillon
