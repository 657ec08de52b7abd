// The checksum of an image file.

#include "fw-update-symbol.h"
#include "support/checksum.h"
#include "support/device-fixture.h"

namespace quillon::test {
namespace {

using namespace fakes;

constexpr char kPath[] = "/opt/media/alpha.bin";

class BinaryChecksum : public DeviceTest
{
protected:
    unsigned long checksumOf(const Bytes& bytes)
    {
        writeFile(kPath, bytes);
        return module.getBinaryCRC32(kPath);
    }

    FWUpdateSymbol module{"alpha"};
};

TEST_F(BinaryChecksum, HasItsCheckValues)
{
    EXPECT_EQ(checksumOf(bytesOf("123456789")), 0x6A50465CUL);
    EXPECT_EQ(checksumOf({0x01}), 0x01B23CA3UL);
    expectSteps({});
}

TEST_F(BinaryChecksum, OfAnEmptyFileIsZeroWithoutAMessage)
{
    EXPECT_EQ(checksumOf({}), 0UL);

    expectSteps({});
}

TEST_F(BinaryChecksum, OfAMissingFileIsZeroWithAMessage)
{
    EXPECT_EQ(module.getBinaryCRC32("/opt/media/none.bin"), 0UL);

    expectSteps({LogFrom("getBinaryCRC32", ERROR, "Error: binary file is NULL\n")});
}

TEST_F(BinaryChecksum, ReadsInBlocksUntilNothingComes)
{
    const Bytes bytes = noise(2 * 32768 + 1);
    recordCalls({"fread"});

    EXPECT_EQ(checksumOf(bytes), imageChecksum(0, bytes.data(), bytes.size()));

    expectTexts(callTexts(), {"fread(1, 32768) = 32768", "fread(1, 32768) = 32768",
                              "fread(1, 32768) = 1", "fread(1, 32768) = 0"});
}

TEST_F(BinaryChecksum, OfRandomLengthsIsThatOfTheBytes)
{
    for (const std::size_t size : {1U, 4095U, 32767U, 32768U, 32769U, 65536U, 99991U}) {
        const Bytes bytes = noise(size, static_cast<unsigned int>(size));
        EXPECT_EQ(checksumOf(bytes), imageChecksum(0, bytes.data(), bytes.size())) << size;
    }
}

TEST_F(BinaryChecksum, AReadErrorEndsTheFile)
{
    EXPECT_EQ(module.getBinaryCRC32("/opt/media"), 0UL) << "a directory opens but cannot be read";

    expectSteps({});
}

TEST_F(BinaryChecksum, ClosesTheFile)
{
    const int before = openDescriptors();

    checksumOf(noise(100));
    module.getBinaryCRC32("/opt/media");

    EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
}  // namespace quillon::test
