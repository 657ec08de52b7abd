#ifndef QUILLON_BENCH_REFERENCE_FILE_PASSES_H
#define QUILLON_BENCH_REFERENCE_FILE_PASSES_H

#include <cstdint>
#include <string>

namespace quillon::bench {

/// The checksum of a file with one table, one byte a step, in blocks of 32768 bytes through a
/// buffered stream. What the service's getBinaryCRC32 is held against; it gives the same number.
/// @throws std::system_error when the file cannot be opened
std::uint32_t checksumBytewise(const std::string& path);

/// Reads a file in the same blocks and does nothing with it: no checksum of a file can be faster.
/// @return the bytes read
/// @throws std::system_error when the file cannot be opened
std::uint64_t readOnly(const std::string& path);

}  // namespace quillon::bench

#endif
