// What estimating and installing have in common when they read a module's image from a stick.

#include <cstddef>
#include <ostream>
#include <stdexcept>
#include <string>

#include "usb-images.h"

namespace quillon::test {
namespace {

using namespace fakes;

struct Operation
{
    const char* function;
    int (FWUpdateSymbol::*run)(const unsigned char* key, const char* path);
    int done;               ///< what it hands back for an image that is needed
    const char* notOpened;  ///< how the line ends that tells of a missing image
    const char* notSigned;
    std::size_t notDeciphered;  ///< how much of an image it takes no memory for
    bool installs;
};

std::ostream& operator<<(std::ostream& out, const Operation& operation)
{
    return out << operation.function;
}

class UsbOperation : public UsbImages, public ::testing::WithParamInterface<Operation>
{
protected:
    static Step said(const std::string& text) { return LogFrom(GetParam().function, ERROR, text); }

    int runAt(const unsigned char* withKey, const char* path)
    {
        return (module.*GetParam().run)(withKey, path);
    }
    int run()
    {
        const int before = openDescriptors();
        const int result = runAt(key, stick.path());
        EXPECT_EQ(openDescriptors(), before) << "a file was left open";
        return result;
    }
};

TEST_P(UsbOperation, RefusesANullKey)
{
    install(Module().needsUpdate());

    EXPECT_EQ(runAt(nullptr, stick.path()), -1);
    EXPECT_EQ(runAt(nullptr, nullptr), -1);

    expectSteps({said("Error: ckey  is nullptr"), said("Error: ckey  is nullptr")});
}

TEST_P(UsbOperation, RefusesANullPath)
{
    install(Module().needsUpdate());

    EXPECT_EQ(runAt(key, nullptr), -1);

    expectSteps({said("Error: image_path is nullptr")});
}

TEST_P(UsbOperation, RefusesAMissingImage)
{
    install(Module().needsUpdate());

    EXPECT_EQ(run(), -1);

    expectSteps(
        {said("Error: /opt/media/USBDriveA/alpha.bin " + std::string(GetParam().notOpened))});
}

TEST_P(UsbOperation, PutsNoSeparatorBetweenThePathAndTheNameAndKeepsTheDecision)
{
    install(Module());
    decideEarlier();

    EXPECT_EQ(runAt(key, "/opt/media"), -1);

    expectSteps({said("Error: /opt/mediaalpha.bin " + std::string(GetParam().notOpened))});
    expectDecision(true, 30);
}

TEST_P(UsbOperation, RefusesAnUnsignedImageBeforeDecipheringIt)
{
    install(Module().needsUpdate());
    stick.addImage("alpha", Image());
    device.verifierSays(0);
    recordCalls({"EVP_CipherInit", "EVP_CipherUpdate", "fread"});

    EXPECT_EQ(run(), -1);

    expectSteps(
        {refused, saidNotSigned,
         said("Error: /opt/media/USBDriveA/alpha.bin " + std::string(GetParam().notSigned))});
    expectDecision(false, 0);
}

TEST_P(UsbOperation, TakesAnyAnswerOfTheVerifierButZeroForSigned)
{
    install(Module().needsUpdate());
    stick.addImage("alpha", Image());
    device.verifierSays(-1);

    EXPECT_EQ(run(), GetParam().done);
}

TEST_P(UsbOperation, GoesOnWhateverSetContextAnswers)
{
    install(Module().needsUpdate().returning("setContext", -1));
    stick.addImage("alpha", Image());

    EXPECT_EQ(run(), GetParam().done);
}

TEST_P(UsbOperation, RefusesAnImageShorterThanItsIv)
{
    install(Module().needsUpdate());
    for (const std::size_t size : {0U, 1U, 15U}) {
        SCOPED_TRACE(size);
        stick.addImage("alpha", Image().cutTo(size));
        clear();

        EXPECT_EQ(run(), -1);

        expectSteps({verified, saidSigned, contextSet, said("Error: iv is worng")});
    }
}

TEST_P(UsbOperation, SaysSoWhenTheImageCannotBeDeciphered)
{
    if (!canFailAllocations()) {
        GTEST_SKIP() << "the sanitizer's allocator cannot be made to fail";
    }
    install(Module().needsUpdate());
    const Bytes image = Image().payload(noise(12345)).bytes();
    stick.addImage("alpha", image);
    failAllocation(image.size() - GetParam().notDeciphered);

    EXPECT_EQ(run(), -1);

    expectSteps({verified, saidSigned, contextSet, said("Error: Decryption data is null")});
}

TEST_P(UsbOperation, FailsWhenThePluginCannotCheckTheVersionAndKeepsTheDecision)
{
    install(Module());
    decideEarlier();
    device.changeModule("alpha", Module().upToDate().returning("checkVersion", 2));

    EXPECT_EQ(run(), -1);

    expectSteps({verified, saidSigned, contextSet, checked,
                 said("Error: alpha Firmware CheckVersion Fail")});
    expectDecision(true, 30);
}

TEST_P(UsbOperation, ARecordWithoutItsRequiredEntriesFailsWithoutRaising)
{
    stick.addImage("", Image());

    EXPECT_EQ(run(), -1);

    expectSteps({Plugin("verifyFile(null, \"/opt/media/USBDriveA/.bin\", \"UserCaller\") = 1"),
                 Log(ERROR,
                     "[uep][UserCaller] the file is signed successfully : "
                     "/opt/media/USBDriveA/.bin\n"),
                 said("Error: alpha has no plug-in")});
}

TEST_P(UsbOperation, ARecordThatLacksOneRequiredEntryFailsWithoutTouchingThePlugin)
{
    ASSERT_EQ(install(Module().needsUpdate().lacking("checkVersion")), -1);
    stick.addImage("", Image());

    EXPECT_EQ(run(), -1);

    expectTexts(pluginTexts(),
                {"verifyFile(null, \"/opt/media/USBDriveA/.bin\", \"UserCaller\") = 1"});
}

TEST_P(UsbOperation, AnEntryAtTheAddressNullFailsWithoutTouchingThePlugin)
{
    ASSERT_EQ(install(Module().withNull("checkVersion")), 0);
    stick.addImage("alpha", Image());

    EXPECT_EQ(run(), -1);

    expectSteps({verified, saidSigned, said("Error: alpha has no plug-in")});
}

TEST_P(UsbOperation, ClosesTheImageBeforeThePluginIsAsked)
{
    const int before = openDescriptors();
    int whileChecking = -1;
    int whileInstalling = -1;
    install(Module()
                .onCheckVersion([&whileChecking](const char*, int* need) {
                    whileChecking = openDescriptors();
                    *need = 1;
                    return 0;
                })
                .onPayload([&whileInstalling](const unsigned char*, int) {
                    whileInstalling = openDescriptors();
                }));
    stick.addImage("alpha", Image());

    EXPECT_EQ(run(), GetParam().done);

    EXPECT_EQ(whileChecking, before);
    EXPECT_EQ(whileInstalling, GetParam().installs ? before : -1);
}

TEST_P(UsbOperation, OpensTheImageBeforeItIsVerified)
{
    const int before = openDescriptors();
    int whileVerifying = -1;
    install(Module().needsUpdate());
    stick.addImage("alpha", Image());
    platform().verifyFile.always([&whileVerifying](const char*) {
        whileVerifying = openDescriptors();
        return 1;
    });

    EXPECT_EQ(run(), GetParam().done);

    EXPECT_EQ(whileVerifying, before + 1);
}

TEST_P(UsbOperation, AVersionThatFillsTheHeaderIsTerminatedBehindIt)
{
    install(Module().needsUpdate());
    const std::string version(64, 'v');
    stick.addImage("alpha", Image().version(version).payload(bytesOf("payload")));

    EXPECT_EQ(run(), GetParam().done);

    expectStep(Plugin("alpha.checkVersion(\"" + version + "\", need -1)"));
    const std::vector<Bytes> installed(GetParam().installs ? 1 : 0, bytesOf("payload"));
    EXPECT_EQ(payloadsOf("alpha"), installed);
}

TEST_P(UsbOperation, AnExceptionOutOfThePluginReachesTheCallerWithTheImageClosed)
{
    install(Module());
    device.changeModule("alpha", Module().throwing("setContext"));
    stick.addImage("alpha", Image());
    const int before = openDescriptors();

    EXPECT_THROW(runAt(key, stick.path()), std::runtime_error);

    EXPECT_EQ(openDescriptors(), before);
}

INSTANTIATE_TEST_SUITE_P(
    Each, UsbOperation,
    ::testing::Values(Operation{"getNeedUpdateList", &FWUpdateSymbol::getNeedUpdateList, 1,
                                "open fail", "is NOT signed ", 0, false},
                      Operation{"updateUSB", &FWUpdateSymbol::updateUSB, 0, "file open",
                                "file is NOT signed ", kIvSize, true}),
    [](const auto& each) { return std::string(each.param.function); });

}  // namespace
}  // namespace quillon::test
