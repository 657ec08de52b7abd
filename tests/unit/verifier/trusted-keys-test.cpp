// The directory of the trusted keys and what may be wrong in it.

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/texts.h"
#include "unit/verifier/verifier-test.h"

namespace quillon::test {
namespace {

class TrustedKeys : public VerifierTest
{
protected:
    void SetUp() override
    {
        VerifierTest::SetUp();
        alarm(60);  // a verifier that waits ends the test
    }

    void putKey(const std::string& name, const std::string& text)
    {
        writeFile(kTrustedKeys + name, text);
    }
};

std::string publicKeyText(const UniqueKey& key)
{
    const UniqueBio bio(BIO_new(BIO_s_mem()));
    EXPECT_EQ(PEM_write_bio_PUBKEY(bio.get(), key.get()), 1);
    char* text = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &text);
    return {text, static_cast<std::size_t>(length)};
}

TEST_F(TrustedKeys, TheOneWithTheTrailersIdIsTakenAmongSeveral)
{
    trust("b");
    EXPECT_EQ(verify(image), 1);

    makeImage(image, "b", "2.0", "payload");
    EXPECT_EQ(verify(image), 1);
}

TEST_F(TrustedKeys, AreLookedUpAnewForEachFile)
{
    EXPECT_EQ(verify(image), 1);
    std::filesystem::remove(std::string(kTrustedKeys) + "a.pem");
    EXPECT_EQ(verify(image), 0);
    trust("a");
    EXPECT_EQ(verify(image), 1);
}

TEST_F(TrustedKeys, AnEmptyDirectoryTrustsNobody)
{
    std::filesystem::remove(std::string(kTrustedKeys) + "a.pem");

    EXPECT_EQ(verify(image), 0);
    expectText(said, like("*not signed: no trusted key with the id *"));
}

TEST_F(TrustedKeys, AMissingDirectoryTrustsNobody)
{
    std::filesystem::remove_all(kTrustedKeys);

    EXPECT_EQ(verify(image), 0);
    EXPECT_EQ(said, "libkUEPUser: " + image +
                        ": not signed: trusted keys in /etc/quillon/trusted-keys cannot be read: "
                        "No such file or directory (asked by UserCaller)\n");
}

TEST_F(TrustedKeys, AFileWithoutTheSuffixIsNotLookedAt)
{
    std::filesystem::rename(std::string(kTrustedKeys) + "a.pem",
                            std::string(kTrustedKeys) + "a.pem.off");

    EXPECT_EQ(verify(image), 0);
}

TEST_F(TrustedKeys, AnUnusableFileIsNamedAndDoesNotLockTheGoodOneOut)
{
    putKey("0.pem", "no key at all");

    EXPECT_EQ(verify(image), 1);
    EXPECT_EQ(said,
              "libkUEPUser: key passed over: /etc/quillon/trusted-keys/0.pem: not a public key in "
              "PEM form\n");
}

TEST_F(TrustedKeys, AShorterRsaKeyIsPassedOver)
{
    putKey("0.pem", publicKeyText(UniqueKey(EVP_RSA_gen(2048))));

    EXPECT_EQ(verify(image), 1);
    expectText(said, like("*0.pem: not an RSA key of 4096 bits*"));
}

TEST_F(TrustedKeys, AKeyOfAnotherKindIsPassedOver)
{
    putKey("0.pem", publicKeyText(UniqueKey(EVP_EC_gen("P-256"))));

    EXPECT_EQ(verify(image), 1);
    expectText(said, like("*0.pem: not an RSA key of 4096 bits*"));
}

TEST_F(TrustedKeys, AFifoADirectoryAndAGiantArePassedOver)
{
    ASSERT_EQ(mkfifo("/etc/quillon/trusted-keys/0.pem", 0600), 0);
    std::filesystem::create_directory(std::string(kTrustedKeys) + "1.pem");
    putKey("2.pem", std::string(100000, '-'));

    EXPECT_EQ(verify(image), 1);
    expectText(said, like("*0.pem: cannot be read: not a regular file*"));
    expectText(said, like("*1.pem: cannot be read: is a directory*"));
    expectText(said, like("*2.pem: cannot be read: longer than 65536 bytes*"));
}

TEST_F(TrustedKeys, AnEncipheredPemNeverAsksForAPassPhrase)
{
    putKey("0.pem",
           "-----BEGIN PUBLIC KEY-----\nProc-Type: 4,ENCRYPTED\nDEK-Info: AES-128-CBC,"
           "00112233445566778899AABBCCDDEEFF\n\nAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA=\n"
           "-----END PUBLIC KEY-----\n");

    EXPECT_EQ(verify(image), 1);
    expectText(said, like("*0.pem: not a public key in PEM form*"));
}

TEST_F(TrustedKeys, TroubleLeavesTheProcesssOpensslErrorsAsTheyWere)
{
    putKey("0.pem", "no key at all");
    writeFile(image, '\0' + content);

    ERR_clear_error();
    EXPECT_EQ(verify(image), 0);
    EXPECT_EQ(ERR_peek_error(), 0U);

    ERR_raise(ERR_LIB_USER, 42);
    const unsigned long before = ERR_peek_last_error();
    EXPECT_EQ(verify(image), 0);
    EXPECT_EQ(ERR_peek_last_error(), before);
}

}  // namespace
}  // namespace quillon::test
