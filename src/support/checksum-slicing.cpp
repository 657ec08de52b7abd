#include "support/checksum-slicing.h"

#include <array>

namespace quillon {
namespace {

constexpr std::size_t kSlices = 16;

// Row 0 takes one byte; row k takes one that k further bytes follow.
using Tables = std::array<std::array<std::uint32_t, 256>, kSlices>;

std::uint32_t entryOf(std::uint32_t byte)
{
    std::uint32_t entry = byte << 24U;
    for (int bit = 0; bit < 8; ++bit) {
        const bool carry = (entry & 0x80000000U) != 0;
        entry <<= 1U;
        if (carry) {
            entry ^= kChecksumPolynomial;
        }
    }
    return entry;
}

Tables buildTables()
{
    Tables tables{};
    for (std::uint32_t byte = 0; byte < 256; ++byte) {
        std::uint32_t entry = entryOf(byte);
        tables[0][byte] = entry;
        for (std::size_t slice = 1; slice < kSlices; ++slice) {
            entry = (entry << 8U) ^ entryOf(entry >> 24U);
            tables[slice][byte] = entry;
        }
    }
    return tables;
}

std::uint32_t takeSixteen(const Tables& tables, std::uint32_t crc, const unsigned char* data)
{
    std::uint32_t result =
        tables[15][data[0] ^ (crc >> 24U)] ^ tables[14][data[1] ^ (crc >> 16U & 0xffU)] ^
        tables[13][data[2] ^ (crc >> 8U & 0xffU)] ^ tables[12][data[3] ^ (crc & 0xffU)];
    for (std::size_t i = 4; i < kSlices; ++i) {
        result ^= tables[kSlices - 1 - i][data[i]];
    }
    return result;
}

}  // namespace

std::uint32_t checksumBySlicing(std::uint32_t crc, const unsigned char* data, std::size_t size)
{
    static const Tables tables = buildTables();
    for (; size >= kSlices; data += kSlices, size -= kSlices) {
        crc = takeSixteen(tables, crc, data);
    }
    for (; size > 0; ++data, --size) {
        crc = (crc << 8U) ^ tables[0][(crc >> 24U) ^ *data];
    }
    return crc;
}

}  // namespace quillon
