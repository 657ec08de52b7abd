#pragma once

#include <cstddef>
#include <cstdint>

namespace quillon {

/// @return whether this processor multiplies two lanes at once: VPCLMULQDQ of x86-64, with AVX2.
bool canFoldChecksumWide();

/// checksumByFolding with sixteen lanes in eight registers of 256 bits, each moved 2048 bits on:
/// half as many instructions for as many bytes.
///
/// Source: as checksumByFolding; the instructions are in the Intel 64 and IA-32 Architectures
/// Software Developer's Manual, volume 2, PCLMULQDQ. The last reduction is left to
/// checksumBySlicing. Only where canFoldChecksumWide(). Thread: any; the constants are computed
/// once, on first use.
std::uint32_t checksumByWideFolding(std::uint32_t crc, const unsigned char* data, std::size_t size);

}  // namespace quillon
