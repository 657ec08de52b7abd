// The CRC-32 of firmware images.

#include "support/checksum.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>

#include "support/checksum-folding.h"
#include "support/checksum-slicing.h"
#include "support/checksum-wide-folding.h"
#include "support/files.h"
#include "support/image.h"

namespace quillon::test {
namespace {

std::uint32_t slowStep(std::uint32_t crc, unsigned char byte)
{
    crc ^= static_cast<std::uint32_t>(byte) << 24U;
    for (int bit = 0; bit < 8; ++bit) {
        crc = (crc & 0x80000000U) != 0 ? (crc << 1U) ^ 0x01B23CA3U : crc << 1U;
    }
    return crc;
}

// As its definition reads, one bit after the other.
std::uint32_t slowChecksum(const Bytes& bytes)
{
    std::uint32_t crc = 0;
    for (const unsigned char byte : bytes) {
        crc = slowStep(crc, byte);
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

// Each way of computing it, whatever this processor would choose.
class ChecksumKernel : public ::testing::TestWithParam<decltype(&imageChecksum)>
{
protected:
    void SetUp() override
    {
        if (GetParam() == &checksumByFolding && !canFoldChecksum()) {
            GTEST_SKIP() << "this processor does not multiply without carries";
        }
        if (GetParam() == &checksumByWideFolding && !canFoldChecksumWide()) {
            GTEST_SKIP() << "this processor does not multiply two lanes at once";
        }
    }
};

TEST_P(ChecksumKernel, AgreesWithTheDefinitionForEveryLengthAndEveryAlignment)
{
    constexpr std::size_t kLongest = 1024;  // four steps of the widest kernel
    constexpr std::size_t kAlignments = 64;
    const Bytes bytes = noise(kLongest + kAlignments);
    for (std::size_t start = 0; start < kAlignments; ++start) {
        const std::uint32_t before = static_cast<std::uint32_t>(start * 0x9E3779B9U);
        std::uint32_t expected = before;
        for (std::size_t length = 0; length <= kLongest; ++length) {
            ASSERT_EQ(GetParam()(before, bytes.data() + start, length), expected)
                << length << " bytes from " << start;
            expected = slowStep(expected, bytes[start + length]);
        }
    }
}

TEST_P(ChecksumKernel, ContinuesOverRandomPieces)
{
    std::mt19937 generator(7);
    std::uniform_int_distribution<std::size_t> length(0, 3000);
    const Bytes bytes = noise(40000);
    const std::uint32_t expected = slowChecksum(bytes);
    for (int round = 0; round < 300; ++round) {
        std::uint32_t crc = 0;
        for (std::size_t done = 0; done < bytes.size();) {
            const std::size_t piece = std::min(length(generator), bytes.size() - done);
            crc = GetParam()(crc, bytes.data() + done, piece);
            done += piece;
        }
        ASSERT_EQ(crc, expected) << round;
    }
}

TEST_P(ChecksumKernel, ReadsNothingBesideItsBytes)
{
    // A heap block of exactly the size: the sanitizers see every byte that is read beside it.
    for (const std::size_t size :
         {1U, 15U, 16U, 17U, 255U, 256U, 257U, 383U, 384U, 511U, 512U, 513U, 1000U}) {
        const Bytes bytes = noise(size);
        const std::unique_ptr<unsigned char[]> exact(new unsigned char[size]);
        std::copy(bytes.begin(), bytes.end(), exact.get());
        EXPECT_EQ(GetParam()(0, exact.get(), size), slowChecksum(bytes)) << size;
    }
}

INSTANTIATE_TEST_SUITE_P(Ways, ChecksumKernel,
                         ::testing::Values(&checksumByWideFolding, &checksumByFolding,
                                           &checksumBySlicing),
                         [](const auto& kernel) {
                             return kernel.param == &checksumByWideFolding ? "wide_folding"
                                    : kernel.param == &checksumByFolding   ? "folding"
                                                                           : "slicing";
                         });

bool processorHas(const std::string& feature)
{
    return readAll("/proc/cpuinfo").find(" " + feature) != std::string::npos;
}

TEST(ImageChecksum, FoldsWhereTheProcessorCan)
{
    EXPECT_EQ(canFoldChecksum(), processorHas("pclmulqdq") || processorHas("pmull"));
    EXPECT_EQ(canFoldChecksumWide(), processorHas("vpclmulqdq") && processorHas("avx2"));
}

}  // namespace
}  // namespace quillon::test
