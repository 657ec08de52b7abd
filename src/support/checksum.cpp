#include "support/checksum.h"

#include <array>

namespace quillon {
namespace {

// Images and information files are made with this one; the common polynomial would refuse them.
constexpr std::uint32_t kPolynomial = 0x01B23CA3U;

using Table = std::array<std::uint32_t, 256>;

Table buildTable()
{
    Table table{};
    for (std::uint32_t byte = 0; byte < table.size(); ++byte) {
        std::uint32_t entry = byte << 24U;
        for (int bit = 0; bit < 8; ++bit) {
            const bool carry = (entry & 0x80000000U) != 0;
            entry <<= 1U;
            if (carry) {
                entry ^= kPolynomial;
            }
        }
        table[byte] = entry;
    }
    return table;
}

}  // namespace

std::uint32_t imageChecksum(std::uint32_t crc, const unsigned char* data, std::size_t size)
{
    static const Table table = buildTable();
    for (std::size_t i = 0; i < size; ++i) {
        crc = (crc << 8U) ^ table[(crc >> 24U) ^ data[i]];
    }
    return crc;
}

}  // namespace quillon
