// Images that are the same whenever and wherever they are made.

#include "unit/tools/image-program.h"

namespace quillon::test {
namespace {

class ReproducibleImage : public ImageProgram
{
protected:
    /// @return the bytes of an image made with these options.
    std::string built(const std::string& options)
    {
        EXPECT_EQ(
            run("build --payload payload --sign $KEYS/signing-key.pem --output out.bin " + options),
            0)
            << err;
        return take("out.bin");
    }
};

constexpr char kOptions[] = "--version 2.1 --key $KEYS/image-key.bin ";

TEST_F(ReproducibleImage, HasTheSameBytesWhenItIsMadeAgain)
{
    for (const char* purpose : {"", "--module out --model TV --counter 7 "}) {
        const std::string options = kOptions + std::string(purpose);
        const std::string first = built(options + "--reproducible");
        EXPECT_TRUE(built(options + "--reproducible") == first) << purpose;
        EXPECT_FALSE(built(options) == first) << purpose;
        EXPECT_FALSE(built(options) == built(options)) << purpose;

        writeFile(directory + "out.bin", first);
        perform("verify --public $KEYS/signing-key.pub.pem --model TV out.bin");
        perform("extract --key $KEYS/image-key.bin --output payload.out out.bin");
        EXPECT_EQ(take("payload.out"), "firmware");
    }
}

TEST_F(ReproducibleImage, HasAnotherVectorForAnythingElse)
{
    const auto vectorWith = [this](const std::string& options) {
        return built("--reproducible " + options).substr(0, kInitialisationVectorSize);
    };
    const std::string vector = vectorWith(kOptions);
    EXPECT_NE(vectorWith("--version 2.2 --key $KEYS/image-key.bin"), vector);
    EXPECT_NE(vectorWith("--version 2.1 --key $OTHER/image-key.bin"), vector);
    writeFile(directory + "payload", std::string(200000, 'x'));
    const std::string large = vectorWith(kOptions);
    EXPECT_NE(large, vector);
    writeFile(directory + "payload", std::string(199999, 'x') + 'y');
    EXPECT_NE(vectorWith(kOptions), large);
}

TEST_F(ReproducibleImage, IsSignedAnewWithTheSameBytes)
{
    const std::string resign =
        "resign tuner.bin --public $KEYS/signing-key.pub.pem --sign $OTHER/signing-key.pem "
        "--reproducible --output ";
    perform(resign + "one");
    perform(resign + "two");
    EXPECT_TRUE(readAll(directory + "one") == readAll(directory + "two"));
    perform("verify one --public $OTHER/signing-key.pub.pem");
}

TEST_F(ReproducibleImage, MakesAReproducibleStick)
{
    writeFile(directory + "stick.json", R"({"imageKey": ")" + keyPath("a", kImageKeyFile) +
                                            R"(", "signingKey": ")" +
                                            keyPath("a", kSigningKeyFile) + R"(", "modules": [
                    {"name": "tuner", "version": "1", "payload": "payload"},
                    {"name": "panel", "version": "1", "payload": "payload"}]})");
    perform("stick --manifest stick.json --reproducible --output one");
    perform("stick --manifest stick.json --reproducible --output two");
    EXPECT_EQ(shell("diff -r '" + directory + "one' '" + directory + "two'"), 0) << out;
}

}  // namespace
}  // namespace quillon::test
