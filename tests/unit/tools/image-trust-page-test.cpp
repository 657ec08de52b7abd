// The steps of docs/trust.md, done exactly as they stand there: keys come and go, images and
// packages are accepted and refused.

#include <gmock/gmock.h>

#include <dlfcn.h>

#include <vector>

#include "platform/verifier.h"
#include "support/texts.h"
#include "unit/tools/image-files.h"

using ::testing::SizeIs;

namespace quillon::test {
namespace {

/// The page's steps, in their order.
enum Step {
    kFirstKeys,
    kFirstImage,
    kSecondKey,
    kSecondImage,
    kResign,
    kRemoveFirstKey,
    kSecondCertificate,
    kSecondPackage,
    kRemoveFirstCertificate,
    kModel,
    kFormat2Image,
    kRefuseFormat1,
    kMendedImageAndFloor,
    kInstallFloor,
    kPurpose,
    kSteps
};

std::vector<std::string> stepsOf(const std::string& page)
{
    const std::string opening = "```sh\n";
    std::vector<std::string> steps;
    for (std::size_t at = page.find(opening); at != std::string::npos;
         at = page.find(opening, at)) {
        at += opening.size();
        steps.push_back(page.substr(at, page.find("```", at) - at));
    }
    return steps;
}

class TrustPage : public ImageFiles
{
protected:
    void SetUp() override
    {
        ImageFiles::SetUp();
        std::filesystem::remove_all(QUILLON_TRUST_POLICY);
        std::filesystem::remove_all(kTrustedKeys);
        std::filesystem::remove_all(kProvisioningCertificates);
        std::filesystem::create_directories("/opt/media/USBDriveA");
        steps = stepsOf(readAll(TRUST_PAGE));
        ASSERT_THAT(steps, SizeIs(kSteps));
        for (const char* payload : {"tuner-2.0", "tuner-2.1", "tuner-2.2", "tuner-2.3"}) {
            writeFile(directory + payload, payload);
        }
        library = dlopen(VERIFIER_LIBRARY, RTLD_LAZY);
        ASSERT_NE(library, nullptr) << dlerror();
        entry = reinterpret_cast<decltype(&verifyFile)>(dlsym(library, "verifyFile"));
    }

    void TearDown() override
    {
        dlclose(library);
        ImageFiles::TearDown();
    }

    void perform(Step step)
    {
        ASSERT_EQ(shell("set -e; PATH=" TOOLS ":$PATH; cd '" + directory + "'\n" + steps[step]), 0)
            << steps[step] << err;
    }

    /// @return whether a device takes the image from a stick; what it says goes to `err`.
    bool isAccepted(const std::string& image)
    {
        const std::string onStick = "/opt/media/USBDriveA/tuner.bin";
        std::filesystem::copy_file(directory + image, onStick,
                                   std::filesystem::copy_options::overwrite_existing);
        ::testing::internal::CaptureStderr();
        const int result = entry(nullptr, onStick.c_str(), "UserCaller");
        err = ::testing::internal::GetCapturedStderr();
        return result != 0;
    }

    /// @return whether a device's helper takes a package from whoever signed it. Not every machine
    ///         can seal what is in it.
    bool isTrusted(const std::string& package)
    {
        const int status = shell(TOOLS "/quillon-storage --install '" + directory + package + "'");
        return status == 0 || err.find("quillon cannot be sealed: ") != std::string::npos;
    }

    std::vector<std::string> steps;
    void* library = nullptr;
    decltype(&verifyFile) entry = nullptr;
};

TEST_F(TrustPage, AKeyIsRotatedAndRevoked)
{
    perform(kFirstKeys);
    perform(kFirstImage);
    EXPECT_TRUE(isAccepted("tuner-2.0.bin")) << err;

    perform(kSecondKey);
    EXPECT_TRUE(isAccepted("tuner-2.0.bin")) << err;
    perform(kSecondImage);
    EXPECT_TRUE(isAccepted("tuner-2.1.bin")) << err;
    EXPECT_TRUE(isAccepted("tuner-2.0.bin")) << err;

    perform(kResign);
    EXPECT_TRUE(isAccepted("tuner-2.0-resigned.bin")) << err;

    perform(kRemoveFirstKey);
    EXPECT_TRUE(isAccepted("tuner-2.1.bin")) << err;
    EXPECT_TRUE(isAccepted("tuner-2.0-resigned.bin")) << err;
    EXPECT_FALSE(isAccepted("tuner-2.0.bin"));
    expectText(err, like("*not signed: no trusted key with the id *"));
}

TEST_F(TrustPage, ACertificateIsRotatedAndRevoked)
{
    perform(kFirstKeys);
    EXPECT_TRUE(isTrusted("keys-1/00000066.bin")) << err;

    perform(kSecondKey);
    perform(kSecondCertificate);
    perform(kSecondPackage);
    EXPECT_TRUE(isTrusted("00000066.bin")) << err;
    EXPECT_TRUE(isTrusted("keys-1/00000066.bin")) << err;

    perform(kRemoveFirstCertificate);
    EXPECT_TRUE(isTrusted("00000066.bin")) << err;
    EXPECT_FALSE(isTrusted("keys-1/00000066.bin"));
    expectText(err, like("*is not signed by anyone trusted in*"));

    perform(kPurpose);
    EXPECT_TRUE(isTrusted("00000066.bin")) << err;
}

TEST_F(TrustPage, ImagesAreBoundToAModelAndOldOnesWithdrawn)
{
    perform(kFirstKeys);
    perform(kFirstImage);
    perform(kSecondKey);
    perform(kSecondCertificate);
    perform(kModel);
    EXPECT_TRUE(isAccepted("tuner-2.0.bin")) << err;
    perform(kFormat2Image);
    EXPECT_TRUE(isAccepted("tuner-2.2.bin")) << err;

    perform(kRefuseFormat1);
    EXPECT_FALSE(isAccepted("tuner-2.0.bin"));
    expectText(err, like("*trailer has format 1, which /etc/quillon/trust.conf refuses*"));

    perform(kMendedImageAndFloor);
    EXPECT_TRUE(isAccepted("tuner-2.2.bin")) << err;
    perform(kInstallFloor);
    EXPECT_FALSE(isAccepted("tuner-2.2.bin"));
    expectText(err, like("*too old: its security counter is 6, and the module's floor is 7*"));
    EXPECT_TRUE(isAccepted("tuner-2.3.bin")) << err;
}

}  // namespace
}  // namespace quillon::test
