// The witness of what is read of an image.

#include "support/read-witness.h"

#include <gtest/gtest.h>
#include <openssl/sha.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "fakes/recording-platform.h"
#include "support/image.h"

namespace quillon::test {
namespace {

constexpr std::size_t kLarge = (5U << 20U) + 12345;

class Witness : public ::testing::Test
{
protected:
    /// Shows all of it, in pieces.
    static void show(ReadWitness& witness, const Bytes& image, std::size_t piece)
    {
        for (std::size_t at = 0; at < image.size(); at += piece) {
            witness.saw(&image[at], std::min(piece, image.size() - at));
        }
    }

    static std::int64_t sizeOf(const Bytes& image)
    {
        return static_cast<std::int64_t>(image.size());
    }

    void expectTestimonyOf(ReadWitness& witness, const Bytes& image)
    {
        const std::size_t content = image.size() - kTrailerSize;
        Sha256 expected{};
        SHA256(image.data(), content, expected.data());
        ASSERT_TRUE(witness.testify(digest, trailer));
        EXPECT_EQ(digest, expected);
        EXPECT_TRUE(std::equal(trailer.begin(), trailer.end(), &image[content]));
    }

    Sha256 digest{};
    ImageTrailerBytes trailer{};
};

TEST_F(Witness, TestifiesToContentAndTrailerWhateverThePieces)
{
    for (const std::size_t size : {kTrailerSize, kTrailerSize + 1, std::size_t{10240}, kLarge}) {
        const Bytes image = noise(size);
        for (const std::size_t piece :
             {std::size_t{533}, std::size_t{10240}, std::size_t{1} << 20U}) {
            ReadWitness witness(sizeOf(image), ReadWitness::Digest::kWanted);
            show(witness, image, piece);

            EXPECT_TRUE(witness.sawAll());
            expectTestimonyOf(witness, image);
        }
    }
}

TEST_F(Witness, DoesNotLookAtWhatComesBehindTheSizeThatItWasTold)
{
    const Bytes image = noise(20000);
    ReadWitness witness(sizeOf(image), ReadWitness::Digest::kWanted);
    show(witness, image + noise(9999, 2), 1000);

    EXPECT_TRUE(witness.sawAll());
    expectTestimonyOf(witness, image);
}

TEST_F(Witness, HasNothingToSayOfWhatItDidNotSeeWhole)
{
    const Bytes image = noise(20000);
    ReadWitness witness(sizeOf(image) + 1, ReadWitness::Digest::kWanted);
    show(witness, image, 10240);

    EXPECT_FALSE(witness.sawAll());
    EXPECT_FALSE(witness.testify(digest, trailer));
}

TEST_F(Witness, HasNothingToSayOfAnImageWithoutATrailer)
{
    const Bytes image = noise(kTrailerSize - 1);
    ReadWitness witness(sizeOf(image), ReadWitness::Digest::kWanted);
    show(witness, image, 100);

    EXPECT_TRUE(witness.sawAll());
    EXPECT_FALSE(witness.testify(digest, trailer));
}

TEST_F(Witness, CountsWhereNoDigestIsWanted)
{
    const Bytes image = noise(kLarge);
    fakes::recordCalls({"pthread_create"});
    ReadWitness witness(sizeOf(image), ReadWitness::Digest::kNotWanted);
    show(witness, image, 10240);

    EXPECT_TRUE(witness.sawAll());
    EXPECT_FALSE(witness.testify(digest, trailer));
    EXPECT_TRUE(fakes::timeline().empty()) << "it takes no thread";
}

TEST_F(Witness, DigestsByItselfWhereThereIsNoThreadToBeHad)
{
    const Bytes image = noise(kLarge);
    fakes::failCall("pthread_create", EAGAIN, 1000);
    ReadWitness witness(sizeOf(image), ReadWitness::Digest::kWanted);
    show(witness, image, 10240);

    expectTestimonyOf(witness, image);
}

TEST_F(Witness, OfASmallImageTakesNoThread)
{
    const Bytes image = noise(1U << 20U);
    fakes::recordCalls({"pthread_create"});
    ReadWitness witness(sizeOf(image), ReadWitness::Digest::kWanted);
    show(witness, image, 10240);

    expectTestimonyOf(witness, image);
    EXPECT_TRUE(fakes::timeline().empty());
}

TEST_F(Witness, MayBeDismissedAtAnyMoment)
{
    const Bytes image = noise(kLarge);
    ReadWitness witness(sizeOf(image), ReadWitness::Digest::kWanted);
    witness.saw(image.data(), 1U << 20U);
    witness.saw(&image[1U << 20U], 1U << 20U);
}

}  // namespace
}  // namespace quillon::test
