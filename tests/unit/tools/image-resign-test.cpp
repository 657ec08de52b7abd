// A new signature for an image whose image key is not at hand.

#include "unit/tools/image-program.h"

namespace quillon::test {
namespace {

class ImageResign : public ImageProgram
{
protected:
    /// Signs with the keys of maker "b".
    static std::string resign(const std::string& options)
    {
        return "resign --sign $OTHER/signing-key.pem " + options;
    }

    /// Gives tuner.bin a trailer of format 2.
    void makeForTheTuner()
    {
        makeImage(image, "a", "2.0", "firmware", ImagePurpose{"tuner", "TV", 5});
    }

    static std::string contentOf(const std::string& path)
    {
        const std::string bytes = readAll(path);
        return bytes.substr(0, bytes.size() - kTrailerSize);
    }

    /// Expects a refusal that leaves the image alone and makes none.
    void expectRefused(const std::string& options, int code, const std::string& reason)
    {
        const std::string before = readAll(image);
        expectRefusal(resign(options + " --output new.bin"), code, reason);
        expectRefusal(resign(options + " --output tuner.bin"), code, reason);
        EXPECT_TRUE(readAll(image) == before);
        expectTexts(names(), {"payload", "tuner.bin"});
    }
};

constexpr char kFromA[] = " tuner.bin --public $KEYS/signing-key.pub.pem ";

TEST_F(ImageResign, PutsTheNewKeysSignatureUnderTheSameContent)
{
    perform(resign(std::string(kFromA) + "--output new.bin"));

    EXPECT_EQ(contentOf(directory + "new.bin"), contentOf(image));
    EXPECT_EQ(modeOf(directory + "new.bin"), 0644U);
    perform("verify new.bin --public $OTHER/signing-key.pub.pem");
    EXPECT_EQ(run("verify new.bin --public $KEYS/signing-key.pub.pem"), 5);
    perform("extract new.bin --key $KEYS/image-key.bin --output out");
    EXPECT_EQ(readAll(directory + "out"), "firmware");
}

TEST_F(ImageResign, MayReplaceTheImage)
{
    perform(resign(std::string(kFromA) + "--output tuner.bin"));
    perform("verify tuner.bin --public $OTHER/signing-key.pub.pem");
    expectTexts(names(), {"payload", "tuner.bin"});
}

TEST_F(ImageResign, TellsWhoHadSignedIt)
{
    std::filesystem::create_directory(directory + "trusted");
    std::filesystem::copy(keyPath("a", kPublicKeyFile), directory + "trusted/a.pem");
    perform(resign("tuner.bin --trusted trusted --output new.bin --json"));
    EXPECT_EQ(json()["signedBefore"], "trusted/a.pem");
    EXPECT_EQ(json()["image"], "new.bin");
}

TEST_F(ImageResign, MakesATrailerOfFormat2OutOfOneOfFormat1)
{
    perform(resign(std::string(kFromA) + "--model TV --counter 9 --output tuner.bin"));
    perform("verify tuner.bin --model TV --floor 9 --public $OTHER/signing-key.pub.pem");
    EXPECT_EQ(run("verify tuner.bin --model TV2 --public $OTHER/signing-key.pub.pem"), 5);
}

TEST_F(ImageResign, NeedsModuleAndCounterForAFirstTrailerOfFormat2)
{
    expectRefused(std::string(kFromA) + "--model TV", 2,
                  "tuner.bin: its trailer of format 1 has no security counter: give --counter");
    std::filesystem::copy(image, directory + "tuner-2.0.bin");
    expectRefusal(resign("tuner-2.0.bin --public $KEYS/signing-key.pub.pem --model TV --counter 1 "
                         "--output new.bin"),
                  2, "tuner-2.0.bin: its name is not that of a module: give --module");
    perform(
        resign("tuner-2.0.bin --public $KEYS/signing-key.pub.pem --model TV --counter 1 "
               "--module panel --output panel.bin"));
    perform("verify panel.bin --model TV --public $OTHER/signing-key.pub.pem");
    EXPECT_EQ(run(resign(std::string(kFromA) + "--counter 1 --output new.bin")), 2);
    EXPECT_EQ(run(resign(std::string(kFromA) + "--module 'a b' --model TV --counter 1 "
                                               "--output new.bin")),
              2);
    EXPECT_FALSE(std::filesystem::exists(directory + "new.bin"));
}

TEST_F(ImageResign, KeepsFormat2AndTheCounter)
{
    makeForTheTuner();
    expectRefused(kFromA, 2,
                  "tuner.bin: its trailer has format 2, and keeps it: give --module and");
    perform(resign(std::string(kFromA) + "--model TV --output tuner.bin --json"));
    EXPECT_EQ(json()["securityCounter"], 5);
    perform("verify tuner.bin --model TV --public $OTHER/signing-key.pub.pem");
}

TEST_F(ImageResign, GivesAnImageToAnotherModel)
{
    makeForTheTuner();
    expectRefused(std::string(kFromA) + "--model TV2", 5,
                  "tuner.bin: not signed: signature does not match the content, module and model");
    perform(
        resign(std::string(kFromA) + "--model TV2 --old-model TV --counter 6 --output tuner.bin"));
    perform("verify tuner.bin --model TV2 --floor 6 --public $OTHER/signing-key.pub.pem");
}

TEST_F(ImageResign, RefusesAnImageWhoseSignatureDoesNotHold)
{
    expectRefused("tuner.bin --public $OTHER/signing-key.pub.pem", 5,
                  "the signing key has the id ");
    expectRefused("tuner.bin --trusted .", 5, "no trusted key with the id ");

    std::string bytes = readAll(image);
    bytes[20] = static_cast<char>(~bytes[20]);
    writeFile(image, bytes);
    expectRefused(kFromA, 5, "tuner.bin: not signed: signature does not match the content");
}

TEST_F(ImageResign, SignsItAllTheSameWhenForced)
{
    std::string bytes = readAll(image);
    bytes.back() = static_cast<char>(~bytes.back());
    writeFile(image, bytes);
    perform(resign("tuner.bin --force --output new.bin --json"));
    EXPECT_FALSE(json().isMember("signedBefore"));
    perform("verify new.bin --public $OTHER/signing-key.pub.pem");
}

TEST_F(ImageResign, HasToBeToldHowToCheckTheOldSignature)
{
    EXPECT_EQ(run(resign("tuner.bin --output new.bin")), 2);
    EXPECT_EQ(run(resign(std::string(kFromA) + "--force --output new.bin")), 2);
    expectRefusal(resign("payload --force --output new.bin"), 4, "payload: not a stick image");
    expectRefusal("resign --sign payload --output new.bin" + std::string(kFromA), 6,
                  "payload: not a private key");
    EXPECT_FALSE(std::filesystem::exists(directory + "new.bin"));
}

}  // namespace
}  // namespace quillon::test
