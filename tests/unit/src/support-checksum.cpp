// The CRC-32 of firmware images.

#include "support/checksum.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "support/image.h"

namespace quillon::test {
namespace {

// As its definition reads, one bit after the other.
std::uint32_t slowChecksum(const Bytes& bytes)
{
    std::uint32_t crc = 0;
    for (const unsigned char byte : bytes) {
        crc ^= static_cast<std::uint32_t>(byte) << 24U;
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc & 0x80000000U) != 0 ? (crc << 1U) ^ 0x01B23CA3U : crc << 1U;
        }
    }
    return crc;
}

std::uint32_t checksum(const Bytes& bytes)
{
    return imageChecksum(0, bytes.data(), bytes.size());
}

TEST(ImageChecksum, HasItsCheckValue)
{
    EXPECT_EQ(checksum(bytesOf("123456789")), 0x6A50465CU);
}

TEST(ImageChecksum, OfTheSingleByteOneIsThePolynomial)
{
    EXPECT_EQ(checksum({0x01}), 0x01B23CA3U);
}

TEST(ImageChecksum, OfNothingIsZero)
{
    EXPECT_EQ(checksum({}), 0U);
    EXPECT_EQ(imageChecksum(77, nullptr, 0), 77U);
}

TEST(ImageChecksum, OfEverySingleByteAgreesWithTheDefinition)
{
    for (unsigned int byte = 0; byte < 256; ++byte) {
        const Bytes bytes = {static_cast<unsigned char>(byte)};
        EXPECT_EQ(checksum(bytes), slowChecksum(bytes)) << byte;
    }
}

TEST(ImageChecksum, OfRandomLengthsAgreesWithTheDefinition)
{
    std::mt19937 generator(20);
    std::uniform_int_distribution<std::size_t> length(0, 70000);
    for (unsigned int round = 0; round < 40; ++round) {
        const Bytes bytes = noise(length(generator), round);
        EXPECT_EQ(checksum(bytes), slowChecksum(bytes)) << bytes.size();
    }
}

TEST(ImageChecksum, ContinuesOverPieces)
{
    const Bytes bytes = noise(1000);
    for (std::size_t cut = 0; cut <= bytes.size(); cut += 37) {
        const std::uint32_t first = imageChecksum(0, bytes.data(), cut);
        EXPECT_EQ(imageChecksum(first, bytes.data() + cut, bytes.size() - cut),
                  slowChecksum(bytes));
    }
}

}  // namespace
}  // namespace quillon::test
