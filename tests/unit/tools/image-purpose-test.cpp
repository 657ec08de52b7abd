// Images for one module of one model, made and checked on the command line.

#include "support/texts.h"
#include "unit/tools/image-files.h"

namespace quillon::test {
namespace {

class ImagePurposeProgram : public ImageFiles
{
protected:
    void SetUp() override
    {
        ImageFiles::SetUp();
        image = directory + "tuner.bin";
        writeFile(directory + "payload", "firmware of the tuner");
    }

    int build(const std::string& options)
    {
        return shell(IMAGE_PROGRAM " build --version 2.0 --payload '" + directory +
                     "payload' --key '" + keyPath("a", kImageKeyFile) + "' --sign '" +
                     keyPath("a", kSigningKeyFile) + "' " + options);
    }

    int buildForTheTuner()
    {
        return build("--module tuner --model 'TV 2024' --counter 5 --output " + image);
    }

    int verify(const std::string& options)
    {
        return shell(IMAGE_PROGRAM " verify --public '" + keyPath("a", kPublicKeyFile) + "' " +
                     options);
    }

    std::string image;
};

TEST_F(ImagePurposeProgram, IsBuiltToldAndVerified)
{
    ASSERT_EQ(buildForTheTuner(), 0) << err;

    EXPECT_EQ(shell(IMAGE_PROGRAM " info " + image), 0);
    expectText(out, like("*trailerFormat: 2\n*"));
    expectText(out, like("*securityCounter: 5\n*"));
    expectText(out, like("*moduleCheck: fc7a\n*"));
    expectText(out, like("*modelCheck: 5b15\n*"));
    expectText(out, like("*signatureAlgorithm: RSA-4096 PSS SHA-512\n*"));
    EXPECT_EQ(verify("--model 'TV 2024' --floor 5 " + image), 0) << err;

    std::filesystem::create_directory(directory + "keys");
    std::filesystem::copy_file(keyPath("a", kPublicKeyFile), directory + "keys/a.pem");
    EXPECT_EQ(
        shell(IMAGE_PROGRAM " verify --model 'TV 2024' --trusted " + directory + "keys " + image),
        0)
        << err;
}

TEST_F(ImagePurposeProgram, IsRefusedForAnythingElse)
{
    ASSERT_EQ(buildForTheTuner(), 0) << err;

    EXPECT_EQ(verify("--model 'TV 2025' " + image), 5);
    expectText(err, like("*made for another model*"));
    EXPECT_EQ(verify("--model 'TV 2024' --floor 6 " + image), 5);
    expectText(err, like("*its security counter is 5, and the module's floor is 6*"));
    EXPECT_EQ(verify(image), 5);
    expectText(err, like("*2 needs the device's model, which --model does not name*"));

    std::filesystem::rename(image, directory + "camera.bin");
    EXPECT_EQ(verify("--model 'TV 2024' " + directory + "camera.bin"), 5);
    expectText(err, like("*made for another module*"));
}

TEST_F(ImagePurposeProgram, OfFormat1HasNoCounterToHoldToAFloor)
{
    ASSERT_EQ(build("--output " + image), 0) << err;

    EXPECT_EQ(shell(IMAGE_PROGRAM " info " + image), 0);
    expectText(out, like("*trailerFormat: 1\n*"));
    expectNoText(out, like("*securityCounter*"));
    EXPECT_EQ(verify("--model 'TV 2024' " + image), 0) << err;
    EXPECT_EQ(verify("--floor 1 " + image), 5);
}

TEST_F(ImagePurposeProgram, NeedsModuleModelAndCounterTogether)
{
    EXPECT_EQ(build("--module tuner --model TV --output " + image), 2);
    EXPECT_EQ(build("--module tuner --counter 5 --output " + image), 2);
    EXPECT_EQ(build("--model TV --counter 5 --output " + image), 2);
    EXPECT_EQ(build("--module tuner --model TV --counter 4294967296 --output " + image), 2);
    EXPECT_EQ(build("--module tuner --model TV --counter -1 --output " + image), 2);
    EXPECT_EQ(build("--module tuner --model ' TV' --counter 1 --output " + image), 2);
    EXPECT_EQ(build("--module tuner --model '' --counter 1 --output " + image), 2);
    EXPECT_EQ(build("--module tu-ner --model TV --counter 1 --output " + image), 2);
    EXPECT_FALSE(std::filesystem::exists(image));
}

}  // namespace
}  // namespace quillon::test
