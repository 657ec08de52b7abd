#include "reference/file-passes.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <system_error>

namespace quillon::bench {
namespace {

constexpr std::uint32_t kPolynomial = 0x01B23CA3U;
using Table = std::array<std::uint32_t, 256>;
using Block = std::array<unsigned char, 32768>;

struct Closer
{
    void operator()(std::FILE* file) const { static_cast<void>(std::fclose(file)); }
};
using File = std::unique_ptr<std::FILE, Closer>;

File open(const std::string& path)
{
    File file(std::fopen(path.c_str(), "rb"));
    if (!file) {
        throw std::system_error(errno, std::generic_category(), path);
    }
    return file;
}

Table makeTable()
{
    Table table{};
    for (std::uint32_t byte = 0; byte < table.size(); ++byte) {
        std::uint32_t entry = byte << 24U;
        for (int bit = 0; bit < 8; ++bit) {
            entry = (entry << 1U) ^ ((entry & 0x80000000U) != 0 ? kPolynomial : 0);
        }
        table[byte] = entry;
    }
    return table;
}

}  // namespace

std::uint32_t checksumBytewise(const std::string& path)
{
    static const Table table = makeTable();
    const File file = open(path);
    Block block;
    std::uint32_t crc = 0;
    while (const std::size_t count = std::fread(block.data(), 1, block.size(), file.get())) {
        for (std::size_t i = 0; i < count; ++i) {
            crc = (crc << 8U) ^ table[(crc >> 24U) ^ block[i]];
        }
    }
    return crc;
}

std::uint64_t readOnly(const std::string& path)
{
    const File file = open(path);
    Block block;
    std::uint64_t total = 0;
    while (const std::size_t count = std::fread(block.data(), 1, block.size(), file.get())) {
        total += count;
    }
    return total;
}

}  // namespace quillon::bench
