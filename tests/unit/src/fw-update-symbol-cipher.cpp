// Deciphering a stream.

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "base/fd.h"
#include "base/handles.h"
#include "fw-update-symbol.h"
#include "support/advised-memory.h"
#include "support/device-fixture.h"

namespace quillon::test {
namespace {

using namespace fakes;

constexpr int kDecipher = 0;
constexpr int kEncipher = 1;
constexpr int kUntouched = -77;

class CipherAll : public DeviceTest
{
protected:
    // Runs over a stream of these bytes. The buffer stays with the fixture.
    bool run(const Bytes& stream, int enc, int count, const std::string& keyText = kKeyText)
    {
        // A stream in memory cannot be empty; one byte is read first, as the IV is from an image.
        Bytes bytes = Bytes{0} + stream;
        const UniqueFile file(fmemopen(bytes.data(), bytes.size(), "rb"));
        EXPECT_NE(file, nullptr);
        EXPECT_EQ(std::fgetc(file.get()), 0);
        outlen = kUntouched;
        output.reset(aes_256_cbc_all(file.get(),
                                     reinterpret_cast<const unsigned char*>(keyText.data()),
                                     Image::iv().data(), enc, count, outlen));
        return output != nullptr;
    }

    bool run(const Bytes& stream, int enc = kDecipher)
    {
        return run(stream, enc, static_cast<int>(stream.size()));
    }

    Bytes result() const { return Bytes(output.get(), output.get() + outlen); }

    const Bytes trailer = noise(kTrailerSize, 534);
    UniqueMemory<unsigned char> output;
    int outlen = 0;
};

TEST_F(CipherAll, OneBlockGivesOneBlockLessItsPadding)
{
    const Bytes plain = bytesOf("thirteen chars");
    const Bytes cipher = encipher(plain, kKeyText, Image::iv());
    ASSERT_EQ(cipher.size(), 16U);

    ASSERT_TRUE(run(cipher + trailer));

    EXPECT_EQ(result(), plain);
}

TEST_F(CipherAll, EveryLengthOfCipherTextGivesWhatOpenSslGivesInOnePiece)
{
    const Bytes plain = noise(34000);
    for (std::size_t size = 0; size <= plain.size(); size += 16) {
        // One to sixteen bytes of padding, another number for each length.
        const std::size_t padding = 1 + size / 16 % 16;
        Bytes cipher;
        if (size > 0) {
            const auto end = plain.begin() + static_cast<std::ptrdiff_t>(size - padding);
            cipher = encipher(Bytes(plain.begin(), end), kKeyText, Image::iv());
        }
        ASSERT_EQ(cipher.size(), size);
        const Bytes expected = decipher(cipher, kKeyText, Image::iv());

        ASSERT_TRUE(run(cipher + trailer)) << size;

        ASSERT_EQ(result(), expected) << size;
    }
}

TEST_F(CipherAll, ALargeImageStandsOnHugePages)
{
    ASSERT_TRUE(run(Bytes(8U << 20U)));

    EXPECT_TRUE(isAdvisedHuge(output.get() + (4U << 20U)));
}

// For every place of the trailer across the end of a read.
TEST_F(CipherAll, ATrailerSplitAcrossTwoReadsIsNeverFed)
{
    recordCalls({"fread", "EVP_CipherUpdate"});
    for (std::size_t size = 10240 - 528; size < 10240; size += 16) {
        const Bytes cipher = encipher(noise(size - 1), kKeyText, Image::iv());
        ASSERT_EQ(cipher.size(), size);
        clear();

        ASSERT_TRUE(run(cipher + trailer));

        EXPECT_EQ(result(), noise(size - 1));
        const std::string rest = std::to_string(size + kTrailerSize - 10240);
        SCOPED_TRACE(size);
        expectTexts(callTexts(), {"fread(1, 10240) = 10240",
                                  "EVP_CipherUpdate(" + std::to_string(size) + ") = 1",
                                  "fread(1, 10240) = " + rest});
    }
}

TEST_F(CipherAll, ATrailerThatBeginsWithAReadIsReadAndNotFed)
{
    const Bytes plain = noise(2 * 10240 - 1);
    const Bytes cipher = encipher(plain, kKeyText, Image::iv());
    ASSERT_EQ(cipher.size(), 2U * 10240);
    recordCalls({"fread", "EVP_CipherUpdate"});

    ASSERT_TRUE(run(cipher + trailer));

    EXPECT_EQ(result(), plain);
    expectTexts(callTexts(), {"fread(1, 10240) = 10240", "EVP_CipherUpdate(10240) = 1",
                              "fread(1, 10240) = 10240", "EVP_CipherUpdate(10240) = 1",
                              "fread(1, 10240) = 534"});
}

TEST_F(CipherAll, AStreamThatEndsWithAReadIsReadOnceMore)
{
    const Bytes plain = noise(10240 - kTrailerSize);
    recordCalls({"fread"});

    ASSERT_TRUE(run(plain + trailer, kEncipher));

    EXPECT_EQ(result(), encipher(plain, kKeyText, Image::iv()));
    expectTexts(callTexts(), {"fread(1, 10240) = 10240", "fread(1, 10240) = 0"});
}

TEST_F(CipherAll, OnlyTheFirst32CharactersOfTheKeyTextCount)
{
    const Bytes cipher = encipher(noise(100), kKeyText, Image::iv());
    std::string another = kKeyText;
    another[32] = 'x';

    ASSERT_TRUE(
        run(cipher + trailer, kDecipher, static_cast<int>(cipher.size() + kTrailerSize), another));

    EXPECT_EQ(result(), noise(100));
}

TEST_F(CipherAll, AWrongKeyGivesSomethingMeaninglessAndPossiblyShorter)
{
    std::string wrong = kKeyText;
    wrong[31] = 'x';
    const Bytes cipher = encipher(noise(100), kKeyText, Image::iv());
    const Bytes expected = decipher(cipher, wrong, Image::iv());

    ASSERT_TRUE(
        run(cipher + trailer, kDecipher, static_cast<int>(cipher.size() + kTrailerSize), wrong));

    EXPECT_EQ(result(), expected);
    EXPECT_EQ(outlen, 96) << "the padding of the last block is wrong";
    expectSteps({});
}

TEST_F(CipherAll, ACipherTextOfBrokenBlocksGivesItsWholeBlocks)
{
    const Bytes cipher = noise(16 * 5 + 7);

    ASSERT_TRUE(run(cipher + trailer));

    EXPECT_EQ(result(), decipher(cipher, kKeyText, Image::iv()));
}

TEST_F(CipherAll, EnciphersAsWell)
{
    const Bytes plain = noise(25000);

    ASSERT_TRUE(run(plain + trailer, kEncipher));

    EXPECT_EQ(result(), encipher(plain, kKeyText, Image::iv()));
}

TEST_F(CipherAll, AStreamShorterThanTheTrailerGivesNothing)
{
    recordCalls({"EVP_CipherUpdate"});
    for (std::size_t size = 0; size < kTrailerSize; ++size) {
        ASSERT_TRUE(run(noise(size))) << size;

        ASSERT_EQ(outlen, 0) << size;
    }
    expectSteps({});
}

TEST_F(CipherAll, EncipheringNextToNothingStaysWithinTheBuffer)
{
    const Bytes padding = encipher({}, kKeyText, Image::iv());
    for (const int count : {0, 1, 15, 16, 17}) {
        ASSERT_TRUE(run(noise(static_cast<std::size_t>(count)), kEncipher)) << count;

        const int expected = std::min(count, 16);
        ASSERT_EQ(outlen, expected) << count;
        EXPECT_EQ(result(), Bytes(padding.begin(), padding.begin() + expected)) << count;
    }
}

TEST_F(CipherAll, ACountBelowTheStreamsLengthBoundsWhatIsFed)
{
    const Bytes plain = noise(31);
    const Bytes cipher = encipher(plain, kKeyText, Image::iv());
    recordCalls({"EVP_CipherUpdate"});

    ASSERT_TRUE(run(cipher + noise(30000), kDecipher, 32 + kTrailerSize));

    EXPECT_EQ(result(), plain);
    expectTexts(callTexts(), {"EVP_CipherUpdate(32) = 1"});
}

TEST_F(CipherAll, ACountAboveTheStreamsLengthFeedsTheWholeStream)
{
    const Bytes plain = noise(31);

    ASSERT_TRUE(run(encipher(plain, kKeyText, Image::iv()), kDecipher, 5000));

    EXPECT_EQ(result(), plain);
}

TEST_F(CipherAll, ANegativeCountHasNoBuffer)
{
    for (const int count : {-1, -16, -2147483647 - 1}) {
        EXPECT_FALSE(run(noise(100), kDecipher, count));
        EXPECT_EQ(outlen, kUntouched);
        EXPECT_EQ(cipher_buf_all, nullptr);
    }
}

TEST_F(CipherAll, TheLatestBufferStaysReachable)
{
    EXPECT_EQ(cipher_buf_all, nullptr);

    ASSERT_TRUE(run(noise(1000)));

    EXPECT_EQ(cipher_buf_all, output.get());
}

TEST_F(CipherAll, WithoutMemoryForTheOutputThereIsNoResult)
{
    if (!canFailAllocations()) {
        GTEST_SKIP() << "the sanitizer's allocator cannot be made to fail";
    }
    recordCalls({"EVP_CipherUpdate"});
    ASSERT_TRUE(run(noise(500)));
    const Bytes stream = noise(600);
    failAllocation(1001);

    EXPECT_FALSE(run(stream, kDecipher, 1001));

    EXPECT_EQ(outlen, kUntouched);
    EXPECT_EQ(cipher_buf_all, nullptr);
    expectSteps({});
}

TEST_F(CipherAll, WithoutMemoryForTheInputThereIsNoResult)
{
    if (!canFailAllocations()) {
        GTEST_SKIP() << "the sanitizer's allocator cannot be made to fail";
    }
    recordCalls({"EVP_CipherInit"});
    failAllocation(10240);

    EXPECT_FALSE(run(noise(1000)));

    EXPECT_EQ(outlen, kUntouched);
    expectSteps({});
}

}  // namespace
}  // namespace quillon::test
