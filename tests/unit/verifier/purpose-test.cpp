// Images that are signed for one module of one model, from a security counter on.

#include <gmock/gmock.h>

#include <openssl/evp.h>

#include "support/texts.h"
#include "unit/verifier/verifier-test.h"

using ::testing::HasSubstr;

namespace quillon::test {
namespace {

class Purpose : public VerifierTest
{
protected:
    void SetUp() override
    {
        VerifierTest::SetUp();
        putPolicy("model = TV2024\n");
        makeFor({"tuner", "TV2024", 5});
    }

    void makeFor(const ImagePurpose& purpose)
    {
        makeImage(image, "a", "2.0", "payload", purpose);
        content = readAll(image);
    }

    /// @return the byte of the image at an offset from the trailer's start.
    char& trailerAt(std::size_t offset) { return content[content.size() - 534 + offset]; }

    /// Asks the library's second entry about the image.
    int verifyRead(const std::string& path)
    {
        const auto* bytes = reinterpret_cast<const unsigned char*>(content.data());
        const std::size_t end = content.size() - 534;
        unsigned char digest[32] = {};
        EXPECT_EQ(EVP_Digest(bytes, end, digest, nullptr, EVP_sha256(), nullptr), 1);
        const auto check =
            reinterpret_cast<decltype(&verifyDigest)>(dlsym(library, "verifyDigest"));
        ::testing::internal::CaptureStderr();
        const int result = check(nullptr, digest, bytes + end, 534, path.c_str(), "UserCaller");
        said = ::testing::internal::GetCapturedStderr();
        return result;
    }

    const std::string camera = stick + "camera.bin";
};

TEST_F(Purpose, OfThisModuleAndModelIsAcceptedWithoutAWord)
{
    EXPECT_EQ(verify(image), 1);
    EXPECT_EQ(said, "");
    EXPECT_EQ(verifyRead(image), 1);
    EXPECT_EQ(said, "");
}

TEST_F(Purpose, OfAnotherModuleIsRefused)
{
    std::filesystem::rename(image, camera);

    EXPECT_EQ(verify(camera), 0);
    EXPECT_EQ(said, "libkUEPUser: " + camera +
                        ": not signed: made for another module: the check value of its name is "
                        "fc7a, that of \"camera\" is 89e8 (asked by UserCaller)\n");
    EXPECT_EQ(verifyRead(camera), 0);
    expectText(said, like("*made for another module*"));
}

TEST_F(Purpose, OfAnotherModelIsRefused)
{
    putPolicy("model = TV2025\n");

    EXPECT_EQ(verify(image), 0);
    EXPECT_EQ(said, "libkUEPUser: " + image +
                        ": not signed: made for another model: the check value of its name is "
                        "614d, that of \"TV2025\" is dbd1 (asked by UserCaller)\n");
    EXPECT_EQ(verifyRead(image), 0);
    expectText(said, like("*made for another model*"));
}

TEST_F(Purpose, WithACounterBelowTheFloorIsRefused)
{
    putPolicy("model = TV2024\nfloor.tuner = 6\n");

    EXPECT_EQ(verify(image), 0);
    EXPECT_EQ(said, "libkUEPUser: " + image +
                        ": not signed: too old: its security counter is 5, and the module's floor "
                        "is 6 (asked by UserCaller)\n");
    EXPECT_EQ(verifyRead(image), 0);
    expectText(said, like("*its security counter is 5*"));
}

TEST_F(Purpose, WithTheFloorsCounterIsAcceptedAndAnotherModulesFloorDoesNotCount)
{
    putPolicy("model = TV2024\nfloor.tuner = 5\nfloor.camera = 9\n");

    EXPECT_EQ(verify(image), 1);
}

TEST_F(Purpose, IsHeldToTheHigherOfBothFloors)
{
    putPolicy("model = TV2024\nfloor.tuner = 4\n");
    putFloors("floor.tuner = 6\n");
    EXPECT_EQ(verify(image), 0);
    expectText(said, like("*the module's floor is 6*"));

    putFloors("floor.tuner = 3\n");
    EXPECT_EQ(verify(image), 1);

    putPolicy("model = TV2024\nfloor.tuner = 7\n");
    EXPECT_EQ(verify(image), 0);
    expectText(said, like("*the module's floor is 7*"));
}

TEST_F(Purpose, ALargestCounterIsNotTakenForASmallOne)
{
    makeFor({"tuner", "TV2024", 4294967295});
    putPolicy("model = TV2024\nfloor.tuner = 4294967295\n");
    EXPECT_EQ(verify(image), 1);

    makeFor({"tuner", "TV2024", 2147483648});
    EXPECT_EQ(verify(image), 0);
}

TEST_F(Purpose, InAFileOfNoModulesNameIsRefused)
{
    const std::string reason = "made for one module, and this file's name is not that of a module";
    for (const char* name : {"tuner", "tuner.img", ".bin", "tuner.bin.bin", "tu-ner.bin"}) {
        writeFile(stick + name, content);
        EXPECT_EQ(verify(stick + name), 0) << name;
        SCOPED_TRACE(name);
        expectText(said, like("*" + std::string(reason) + "*"));
    }
}

TEST_F(Purpose, IsNotKnownToADeviceWithoutAModel)
{
    putPolicy("# nothing\n");

    EXPECT_EQ(verify(image), 0);
    expectText(said, like("*trailer has an unknown format: 2 needs the device's model, which "
                          "/etc/quillon/trust.conf does not name*"));
}

// What the header says is signed, so a lie that makes it fit is found.
TEST_F(Purpose, IsRefusedWithAHeaderThatWasMadeToFit)
{
    const auto refusal = HasSubstr("signature does not match the content, module and model");
    ImageTrailer lie;
    lie.format = 2;
    lie.moduleCheck = checkValueOf("camera");
    const std::string original = content;

    trailerAt(18) = static_cast<char>(lie.moduleCheck[0]);
    trailerAt(19) = static_cast<char>(lie.moduleCheck[1]);
    writeFile(camera, content);
    EXPECT_EQ(verify(camera), 0) << "the module";
    EXPECT_THAT(said, refusal);

    content = original;
    trailerAt(10) = 6;
    writeFile(image, content);
    putPolicy("model = TV2024\nfloor.tuner = 6\n");
    EXPECT_EQ(verify(image), 0) << "the counter";
    EXPECT_THAT(said, refusal);

    content = original;
    lie.modelCheck = checkValueOf("TV2025");
    trailerAt(20) = static_cast<char>(lie.modelCheck[0]);
    trailerAt(21) = static_cast<char>(lie.modelCheck[1]);
    writeFile(image, content);
    putPolicy("model = TV2025\n");
    EXPECT_EQ(verify(image), 0) << "the model";
    EXPECT_THAT(said, refusal);
}

/// @return another text with the same check value.
std::string twinOf(const std::string& text)
{
    const CheckValue wanted = checkValueOf(text);
    for (int i = 0;; ++i) {
        std::string twin = "x" + std::to_string(i);
        if (checkValueOf(twin) == wanted) {
            return twin;
        }
    }
}

TEST_F(Purpose, IsRefusedForATextOfTheSameCheckValue)
{
    const auto refusal = HasSubstr("signature does not match the content, module and model");
    const std::string twin = stick + twinOf("tuner") + ".bin";
    writeFile(twin, content);
    EXPECT_EQ(verify(twin), 0) << "the module";
    EXPECT_THAT(said, refusal);

    putPolicy("model = " + twinOf("TV2024") + "\n");
    EXPECT_EQ(verify(image), 0) << "the model";
    EXPECT_THAT(said, refusal);
}

TEST_F(Purpose, IsRefusedWithAnySingleBitOfTheTrailerFlipped)
{
    for (std::size_t i = 0; i < 534; ++i) {
        for (unsigned bit = 0; bit < 8; ++bit) {
            char& byte = trailerAt(i);
            const char right = byte;
            byte = static_cast<char>(static_cast<unsigned char>(byte) ^ (1U << bit));
            ASSERT_EQ(verifyRead(image), 0) << "byte " << i << " bit " << bit;
            byte = right;
        }
    }
}

TEST_F(Purpose, OfAnotherMakerIsRefused)
{
    makeImage(image, "b", "2.0", "payload", ImagePurpose{"tuner", "TV2024", 5});

    EXPECT_EQ(verify(image), 0);
    expectText(said, like("*not signed: no trusted key with the id *"));
}

TEST_F(Purpose, OfAnotherMakerUnderATrustedKeysIdIsRefused)
{
    const std::string ofA = content;
    trust("b");
    makeImage(image, "b", "2.0", "payload", ImagePurpose{"tuner", "TV2024", 5});
    content = readAll(image);
    EXPECT_EQ(verify(image), 1);
    for (std::size_t i = 14; i < 18; ++i) {
        trailerAt(i) = ofA[ofA.size() - 534 + i];
    }
    writeFile(image, content);
    EXPECT_EQ(verify(image), 0);
    expectText(said, like("*signature does not match the content, module and model*"));
}

}  // namespace
}  // namespace quillon::test
