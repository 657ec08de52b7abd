// The second entry: the question whether a digest and a trailer belong together.

#include <gmock/gmock.h>

#include <openssl/err.h>
#include <openssl/evp.h>

#include "support/texts.h"
#include "unit/verifier/verifier-test.h"

using ::testing::HasSubstr;

namespace quillon::test {
namespace {

class Digest : public VerifierTest
{
protected:
    void SetUp() override
    {
        VerifierTest::SetUp();
        digestEntry = reinterpret_cast<decltype(&verifyDigest)>(dlsym(library, "verifyDigest"));
        ASSERT_NE(digestEntry, nullptr) << dlerror();
        std::filesystem::remove(image);  // whatever is asked here, no file is looked at
    }

    /// Asks about a file of this content; what the verifier says goes to `said`.
    int verifyRead(const std::string& bytes)
    {
        const std::string trailer = bytes.substr(bytes.size() - 534);
        const std::string digest = sha256(bytes.substr(0, bytes.size() - 534));
        return ask(data(digest), data(trailer), 534, image.c_str());
    }

    int ask(const unsigned char* digest, const unsigned char* trailer, int size, const char* path)
    {
        ::testing::internal::CaptureStderr();
        const int result = digestEntry(nullptr, digest, trailer, size, path, "UserCaller");
        said = ::testing::internal::GetCapturedStderr();
        return result;
    }

    static std::string sha256(const std::string& bytes)
    {
        std::string digest(32, '\0');
        EXPECT_EQ(
            EVP_Digest(bytes.data(), bytes.size(), reinterpret_cast<unsigned char*>(digest.data()),
                       nullptr, EVP_sha256(), nullptr),
            1);
        return digest;
    }

    static const unsigned char* data(const std::string& bytes)
    {
        return reinterpret_cast<const unsigned char*>(bytes.data());
    }

    decltype(&verifyDigest) digestEntry = nullptr;
};

TEST_F(Digest, OfASignedContentIsAcceptedWithoutAWord)
{
    EXPECT_EQ(verifyRead(content), 1);
    EXPECT_EQ(said, "");
}

TEST_F(Digest, OfAnotherContentIsRefused)
{
    std::string exchanged = content;
    exchanged[20] = static_cast<char>(exchanged[20] + 1);

    EXPECT_EQ(verifyRead(exchanged), 0);
    EXPECT_EQ(said, "libkUEPUser: " + image +
                        ": not signed: signature does not match the content (asked by "
                        "UserCaller)\n");
}

TEST_F(Digest, IsRefusedWithTheTrailerOfAnotherImage)
{
    makeImage(image, "a", "2.1", "payload");
    const std::string other = readAll(image);

    EXPECT_EQ(
        verifyRead(content.substr(0, content.size() - 534) + other.substr(other.size() - 534)), 0);
    expectText(said, like("*not signed: signature does not match the content*"));
}

TEST_F(Digest, IsRefusedWithWhatIsNoTrailer)
{
    EXPECT_EQ(verifyRead(std::string(600, 'x')), 0);
    expectText(said, like("*not signed: trailer has no signature (bad magic)*"));
}

TEST_F(Digest, IsRefusedWithATrailerOfAWrongSize)
{
    const std::string digest = sha256(content.substr(0, content.size() - 534));
    const std::string trailer = content.substr(content.size() - 534);

    EXPECT_EQ(ask(data(digest), data(trailer), 533, image.c_str()), 0);
    expectText(said, like("*not signed: trailer has 533 bytes instead of 534*"));
    EXPECT_EQ(ask(data(digest), data(trailer), 535, image.c_str()), 0);
    EXPECT_EQ(ask(data(digest), data(trailer), 0, image.c_str()), 0);
    EXPECT_EQ(ask(data(digest), data(trailer), -1, image.c_str()), 0);
}

TEST_F(Digest, ANullArgumentIsRefused)
{
    const std::string digest = sha256(content.substr(0, content.size() - 534));
    const std::string trailer = content.substr(content.size() - 534);
    const auto lacks = HasSubstr("not signed: the question lacks a digest, a trailer or a name");

    EXPECT_EQ(ask(nullptr, data(trailer), 534, image.c_str()), 0);
    EXPECT_THAT(said, lacks);
    EXPECT_EQ(ask(data(digest), nullptr, 534, image.c_str()), 0);
    EXPECT_THAT(said, lacks);
    EXPECT_EQ(ask(data(digest), data(trailer), 534, nullptr), 0);
    EXPECT_THAT(said, lacks);
    EXPECT_EQ(ask(data(digest), data(trailer), 534, ""), 0);
    EXPECT_THAT(said, lacks);
    EXPECT_EQ(digestEntry(nullptr, data(digest), data(trailer), 534, image.c_str(), nullptr), 1)
        << "the caller is for the messages only";
}

TEST_F(Digest, SignedByAnotherMakerIsRefused)
{
    makeImage(image, "b", "2.0", "payload");

    EXPECT_EQ(verifyRead(readAll(image)), 0);
    expectText(said, like("libkUEPUser: " + image + ": not signed: no trusted key with the id *"));
}

TEST_F(Digest, IsRefusedWithoutTheTrustedKeys)
{
    std::filesystem::remove_all(kTrustedKeys);

    EXPECT_EQ(verifyRead(content), 0);
    EXPECT_EQ(said, "libkUEPUser: " + image +
                        ": not signed: trusted keys in /etc/quillon/trusted-keys cannot be read: "
                        "No such file or directory (asked by UserCaller)\n");
}

TEST_F(Digest, IsCheckedWithTheKeysThatAreThereNow)
{
    EXPECT_EQ(verifyRead(content), 1);
    std::filesystem::remove(std::string(kTrustedKeys) + "a.pem");
    EXPECT_EQ(verifyRead(content), 0);
    trust("a");
    EXPECT_EQ(verifyRead(content), 1);
}

TEST_F(Digest, TroubleLeavesTheProcesssOpensslErrorsAsTheyWere)
{
    writeFile(std::string(kTrustedKeys) + "0.pem", "no key at all");
    const std::string exchanged = 'x' + content;

    ERR_clear_error();
    EXPECT_EQ(verifyRead(exchanged), 0);
    EXPECT_EQ(ERR_peek_error(), 0U);

    ERR_raise(ERR_LIB_USER, 42);
    const unsigned long before = ERR_peek_last_error();
    EXPECT_EQ(verifyRead(exchanged), 0);
    EXPECT_EQ(ERR_peek_last_error(), before);
}

}  // namespace
}  // namespace quillon::test
