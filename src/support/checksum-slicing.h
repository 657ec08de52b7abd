#pragma once

#include <cstddef>
#include <cstdint>

namespace quillon {

/// The polynomial without its x^32. Images and information files are made with this one; the common
/// one would refuse them.
constexpr std::uint32_t kChecksumPolynomial = 0x01B23CA3U;

/// imageChecksum on any processor: sixteen bytes a step, sixteen tables of 1 KiB.
///
/// Source: M. E. Kounavis and F. L. Berry, "Novel Table Lookup-Based Algorithms for
/// High-Performance CRC Generation", IEEE Transactions on Computers 57(11), 2008; the single byte's
/// step is that of D. V. Sarwate, "Computation of cyclic redundancy checks via table look-up",
/// Communications of the ACM 31(8), 1988. Thread: any; the tables are built once, on first use.
std::uint32_t checksumBySlicing(std::uint32_t crc, const unsigned char* data, std::size_t size);

}  // namespace quillon
