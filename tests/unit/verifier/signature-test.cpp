// Which content and trailer the verifier accepts.

#include <fstream>

#include "support/texts.h"
#include "unit/verifier/verifier-test.h"

namespace quillon::test {
namespace {

class Signature : public VerifierTest
{
};

std::string withByte(std::string content, std::size_t fromEnd, char byte)
{
    content[content.size() - fromEnd] = byte;
    return content;
}

TEST_F(Signature, OfATrustedMakerIsAcceptedWithoutAWord)
{
    EXPECT_EQ(verify(image), 1);
    EXPECT_EQ(said, "");
}

TEST_F(Signature, OfAnotherMakerIsRefused)
{
    makeImage(image, "b", "2.0", "payload");

    EXPECT_EQ(verify(image), 0);
    expectText(said, like("libkUEPUser: " + image + ": not signed: no trusted key with the id *"));
}

TEST_F(Signature, OfAnotherMakerUnderATrustedKeysIdIsRefused)
{
    trust("b");
    makeImage(image, "b", "2.0", "payload");
    const std::string foreign = readAll(image);
    // b's content and signature, a's key id.
    writeFile(image, foreign.substr(0, foreign.size() - 520) +
                         content.substr(content.size() - 520, 8) +
                         foreign.substr(foreign.size() - 512));

    EXPECT_EQ(verify(image), 0);
    EXPECT_EQ(said, "libkUEPUser: " + image +
                        ": not signed: signature does not match the content (asked by "
                        "UserCaller)\n");
}

TEST_F(Signature, IsRefusedAtEveryTruncationOfTheImage)
{
    for (std::size_t length = 0; length < content.size(); ++length) {
        writeFile(image, content.substr(0, length));
        EXPECT_EQ(verify(image), 0) << length;
        SCOPED_TRACE(length);
        expectText(said, like("*not signed: *"));
    }
}

TEST_F(Signature, IsRefusedWithBytesAddedInFrontOrBehind)
{
    writeFile(image, content + '\0');
    EXPECT_EQ(verify(image), 0);

    writeFile(image, '\0' + content);
    EXPECT_EQ(verify(image), 0);
}

TEST_F(Signature, IsRefusedWithAnySingleBitFlipped)
{
    for (std::size_t i = 0; i < content.size(); ++i) {
        for (unsigned bit = 0; bit < 8; ++bit) {
            std::string damaged = content;
            damaged[i] = static_cast<char>(static_cast<unsigned char>(damaged[i]) ^ (1U << bit));
            writeFile(image, damaged);
            ASSERT_EQ(verify(image), 0) << "byte " << i << " bit " << bit;
        }
    }
}

TEST_F(Signature, EachPartOfTheTrailerHeaderHasItsOwnReason)
{
    const auto reasonOf = [&](const std::string& damaged) {
        writeFile(image, damaged);
        EXPECT_EQ(verify(image), 0);
        return said;
    };
    expectText(reasonOf(withByte(content, 534, 'q')),
               like("*not signed: trailer has no signature (bad magic)*"));
    expectText(reasonOf(withByte(content, 526, '\2')), like("*trailer has an unknown format*"));
    expectText(reasonOf(withByte(content, 524, '\2')), like("*trailer has an unknown algorithm*"));
    expectText(reasonOf(withByte(content, 522, '\1')),
               like("*trailer has a wrong signature length*"));
}

TEST_F(Signature, OfAContentIsWorthNothingWithoutTheContent)
{
    writeFile(image, content.substr(content.size() - 534));

    EXPECT_EQ(verify(image), 0);
    expectText(said, like("*signature does not match the content*"));
}

TEST_F(Signature, IsNotFoundInAFileShorterThanATrailer)
{
    writeFile(image, content.substr(content.size() - 533));

    EXPECT_EQ(verify(image), 0);
    expectText(said, like("*not signed: too short for a signature trailer*"));
}

TEST_F(Signature, IsNotLookedForInAFileThatIsLongerThanAnyImage)
{
    // A hole costs nothing to make, and years to read.
    writeFile(image, content);
    std::filesystem::resize_file(image, (std::uintmax_t{1} << 40U) - 534);
    std::ofstream(image, std::ios::app | std::ios::binary) << content.substr(content.size() - 534);

    EXPECT_EQ(verify(image), 0);
    expectText(said, like("*not signed: longer than 2147483647 bytes, the most*"));
}

TEST_F(Signature, CoversAContentOfManyReads)
{
    makeImage(image, "a", "2.0", std::string(300000, 'x'));
    EXPECT_EQ(verify(image), 1);

    std::string damaged = readAll(image);
    damaged[200000] = static_cast<char>(damaged[200000] + 1);
    writeFile(image, damaged);
    EXPECT_EQ(verify(image), 0);
}

}  // namespace
}  // namespace quillon::test
