// In what two images differ, with the exit codes of diff(1).

#include <gmock/gmock.h>

#include "unit/tools/image-program.h"

using ::testing::ElementsAre;

namespace quillon::test {
namespace {

class ImageDiff : public ImageProgram
{
protected:
    /// Compares and expects differences, or none.
    Json::Value::Members differences(const std::string& arguments)
    {
        const int status = run("diff --json " + arguments);
        const Json::Value found = json()["differences"];
        EXPECT_EQ(status, found.empty() ? 0 : 1) << err;
        for (const Json::Value& pair : found) {
            EXPECT_EQ(pair.size(), 2U);
        }
        return found.getMemberNames();
    }

    void resign(const std::string& options)
    {
        perform("resign tuner.bin --public $KEYS/signing-key.pub.pem --output other.bin " +
                options);
    }
};

TEST_F(ImageDiff, OfACopyIsNothing)
{
    std::filesystem::copy(image, directory + "other.bin");
    ASSERT_EQ(run("diff tuner.bin other.bin"), 0) << err;
    EXPECT_EQ(out, "");
    EXPECT_THAT(differences("tuner.bin other.bin --key $KEYS/image-key.bin"), ElementsAre());
}

TEST_F(ImageDiff, OfANewSignatureIsTheSignatureAndItsSigner)
{
    resign("--sign $KEYS/signing-key.pem");
    EXPECT_THAT(differences("tuner.bin other.bin"), ElementsAre("signatureDigest"));
    resign("--sign $OTHER/signing-key.pem");
    EXPECT_THAT(differences("tuner.bin other.bin --key $KEYS/image-key.bin"),
                ElementsAre("keyId", "signatureDigest"));
}

TEST_F(ImageDiff, OfTheSameSignersTrailerOfFormat2IsNotTheSigner)
{
    resign("--sign $KEYS/signing-key.pem --model TV --counter 7");
    EXPECT_THAT(differences("tuner.bin other.bin"),
                ElementsAre("modelCheck", "moduleCheck", "securityCounter", "signatureAlgorithm",
                            "signatureDigest", "trailerFormat"));
    ASSERT_EQ(run("diff tuner.bin other.bin"), 1) << err;
    expectText(out, like("*\nsecurityCounter: none -> 7\n*"));
    expectText(out, like("*\ntrailerFormat: 1 -> 2\n"));
}

TEST_F(ImageDiff, TellsFromTheHolderOfTheKeyAVersionFromAPayload)
{
    makeImage(directory + "other.bin", "a", "2.1", "firmware");
    EXPECT_THAT(differences("tuner.bin other.bin"),
                ElementsAre("ciphertextDigest", "initialisationVector", "signatureDigest"));
    EXPECT_THAT(
        differences("tuner.bin other.bin --key $KEYS/image-key.bin"),
        ElementsAre("ciphertextDigest", "initialisationVector", "signatureDigest", "version"));
    makeImage(directory + "other.bin", "a", "2.0", "firmwarf");
    EXPECT_THAT(differences("tuner.bin other.bin --key $KEYS/image-key.bin"),
                ElementsAre("ciphertextDigest", "initialisationVector", "payloadDigest",
                            "signatureDigest"));
}

TEST_F(ImageDiff, TakesAKeyForEachImage)
{
    makeImage(directory + "other.bin", "b", "2.0", "firmware");
    EXPECT_THAT(
        differences("tuner.bin other.bin --key $KEYS/image-key.bin "
                    "--key $OTHER/image-key.bin"),
        ElementsAre("ciphertextDigest", "initialisationVector", "keyId", "signatureDigest"));
}

TEST_F(ImageDiff, IsTroubleWhereItCannotTell)
{
    expectRefusal("diff tuner.bin missing", 2, "missing: cannot be read");
    expectRefusal("diff payload tuner.bin", 2, "payload: not a stick image");
    expectRefusal("diff tuner.bin tuner.bin --key $OTHER/image-key.bin", 2, "wrong image key");
    expectRefusal("diff tuner.bin tuner.bin --key a --key b --key c", 2, "twice at most");
    expectRefusal("diff tuner.bin", 2, "SECOND is required");
    EXPECT_EQ(run("diff tuner.bin tuner.bin --json >/dev/full"), 2);
    EXPECT_EQ(err, "quillon-image: standard output cannot be written\n");
}

}  // namespace
}  // namespace quillon::test
