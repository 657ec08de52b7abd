#pragma once

#include <cstddef>
#include <cstdint>

namespace quillon {

/// Continues the CRC-32 of firmware images over more bytes.
///
/// Polynomial 0x01B23CA3, most significant bit first, initial value 0, nothing reflected, no final
/// XOR; not the common CRC-32. Check value: the digits "123456789" give 0x6A50465C.
/// The processor decides on first use how it is computed: checksum-wide-folding.h,
/// checksum-folding.h, checksum-slicing.h.
///
/// @param crc   0, or the result for the bytes before
/// @param data  `size` bytes
/// @return the CRC of all bytes so far. Thread: any; tables are built once, on first use.
std::uint32_t imageChecksum(std::uint32_t crc, const unsigned char* data, std::size_t size);

}  // namespace quillon
