// Installing a module's image from a stick.

#include <cerrno>
#include <string>

#include "usb-images.h"

namespace quillon::test {
namespace {

using namespace fakes;

class UpdateUsb : public UsbImages
{
protected:
    static Step said(const std::string& text) { return LogFrom("updateUSB", ERROR, text); }

    const Step checked = Plugin("alpha.checkVersion(\"2.0\", need -1)");
    const Step started = said("========== [ alpha update start ] ==========");
    const Step succeeded = said("========== [ alpha update succeeded ] ==========");
};

TEST_F(UpdateUsb, VerifiesDeciphersAsksAndInstallsInThisOrder)
{
    install(Module().needsUpdate());
    const Bytes payload = noise(50000);
    stick.addImage("alpha", Image().version("2.0").payload(payload));

    EXPECT_EQ(update(), 0);

    expectSteps({verified, saidSigned, contextSet, checked, started,
                 Plugin("alpha.doUpdate_decryption(50000 bytes)"), succeeded});
    EXPECT_EQ(payloadsOf("alpha"), std::vector<Bytes>{payload});
}

TEST_F(UpdateUsb, RefusesANullKey)
{
    install(Module().needsUpdate());

    EXPECT_EQ(module.updateUSB(nullptr, stick.path()), -1);
    EXPECT_EQ(module.updateUSB(nullptr, nullptr), -1);

    expectSteps({said("Error: ckey  is nullptr"), said("Error: ckey  is nullptr")});
}

TEST_F(UpdateUsb, RefusesANullPath)
{
    install(Module().needsUpdate());

    EXPECT_EQ(module.updateUSB(key, nullptr), -1);

    expectSteps({said("Error: image_path is nullptr")});
}

TEST_F(UpdateUsb, RefusesAMissingImage)
{
    install(Module().needsUpdate());

    EXPECT_EQ(update(), -1);

    expectSteps({said("Error: /opt/media/USBDriveA/alpha.bin file open")});
}

TEST_F(UpdateUsb, PutsNoSeparatorBetweenThePathAndTheName)
{
    install(Module().needsUpdate());

    EXPECT_EQ(module.updateUSB(key, "/opt/media"), -1);

    expectSteps({said("Error: /opt/mediaalpha.bin file open")});
}

TEST_F(UpdateUsb, RefusesAnUnsignedImageBeforeDecipheringIt)
{
    install(Module().needsUpdate());
    stick.addImage("alpha", Image());
    device.verifierSays(0);
    recordCalls({"EVP_CipherInit", "EVP_CipherUpdate", "fread"});

    EXPECT_EQ(update(), -1);

    expectSteps({refused, saidNotSigned,
                 said("Error: /opt/media/USBDriveA/alpha.bin file is NOT signed ")});
}

TEST_F(UpdateUsb, TakesAnyAnswerOfTheVerifierButZeroForSigned)
{
    install(Module().needsUpdate());
    stick.addImage("alpha", Image());
    device.verifierSays(-1);

    EXPECT_EQ(update(), 0);
}

TEST_F(UpdateUsb, GoesOnWhateverSetContextAnswers)
{
    install(Module().needsUpdate().returning("setContext", -1));
    stick.addImage("alpha", Image());

    EXPECT_EQ(update(), 0);
}

TEST_F(UpdateUsb, RefusesAnImageShorterThanItsIv)
{
    install(Module().needsUpdate());
    for (const std::size_t size : {0U, 1U, 15U}) {
        stick.addImage("alpha", Image().cutTo(size));
        clear();

        EXPECT_EQ(update(), -1);

        SCOPED_TRACE(size);
        expectSteps({verified, saidSigned, contextSet, said("Error: iv is worng")});
    }
}

TEST_F(UpdateUsb, AnImageOfAnIvAloneHasAnEmptyVersionAndFails)
{
    Bytes header;
    install(Module().onCheckVersion([&header](const char* version, int* need) {
        header.assign(version, version + kHeaderSize);
        *need = 1;
        return 0;
    }));
    stick.addImage("alpha", Image().cutTo(16));

    EXPECT_EQ(update(), -1);

    EXPECT_EQ(header, Bytes(kHeaderSize)) << "nothing but zeros, to the end of the header";
    expectTexts(pluginTexts(),
                {"verifyFile(null, \"/opt/media/USBDriveA/alpha.bin\", "
                 "\"UserCaller\") = 1",
                 "alpha.setContext(\"alpha\", 3, \"\")", "alpha.checkVersion(\"\", need -1)"});
}

TEST_F(UpdateUsb, SaysSoWhenTheImageCannotBeDeciphered)
{
    if (!canFailAllocations()) {
        GTEST_SKIP() << "the sanitizer's allocator cannot be made to fail";
    }
    install(Module().needsUpdate());
    const Bytes image = Image().payload(noise(12345)).bytes();
    stick.addImage("alpha", image);
    failAllocation(image.size() - kIvSize);

    EXPECT_EQ(update(), -1);

    expectSteps({verified, saidSigned, contextSet, said("Error: Decryption data is null")});
}

TEST_F(UpdateUsb, FeedsEverythingBetweenIvAndTrailerToTheCipher)
{
    install(Module().needsUpdate());
    const Bytes image = Image().payload(noise(1000)).bytes();
    stick.addImage("alpha", image);
    recordCalls({"EVP_CipherInit", "EVP_CipherUpdate"});

    EXPECT_EQ(update(), 0);

    expectTexts(callTexts(), {"EVP_CipherInit(0) = 1",
                              "EVP_CipherUpdate(" +
                                  std::to_string(image.size() - kIvSize - kTrailerSize) + ") = 1"});
}

TEST_F(UpdateUsb, FailsWhenThePluginCannotCheckTheVersion)
{
    install(Module().needsUpdate().returning("checkVersion", 1));
    stick.addImage("alpha", Image());

    EXPECT_EQ(update(), -1);

    expectSteps({verified, saidSigned, contextSet, checked,
                 said("Error: alpha Firmware CheckVersion Fail")});
}

TEST_F(UpdateUsb, FailsWhenNoUpdateIsNeeded)
{
    install(Module());
    stick.addImage("alpha", Image());
    for (const int need : {0, -1, -5}) {
        device.changeModule("alpha", Module().needs(need));
        clear();

        EXPECT_EQ(update(), -1);

        expectSteps({verified, saidSigned, contextSet, checked,
                     said("Error: alpha Firmware not need update")});
    }
}

TEST_F(UpdateUsb, APluginThatGivesNoAnswerCountsAsNeedingNoUpdate)
{
    install(Module().leavesNeedAlone());
    stick.addImage("alpha", Image());

    EXPECT_EQ(update(), -1);

    expectLastSteps({checked, said("Error: alpha Firmware not need update")});
}

TEST_F(UpdateUsb, EveryNeedAboveZeroInstalls)
{
    install(Module().needs(2));
    stick.addImage("alpha", Image());

    EXPECT_EQ(update(), 0);
}

TEST_F(UpdateUsb, HandsThePluginsOwnCodeBackAndTellsErrno)
{
    install(Module().needsUpdate().returning("doUpdate_decryption", 7, ENOSPC));
    stick.addImage("alpha", Image());

    EXPECT_EQ(update(), 7);

    expectSteps({verified, saidSigned, contextSet, checked, started,
                 Plugin("alpha.doUpdate_decryption(7 bytes)"),
                 said("Error: alpha Firmware doUpdate Fail 7 (28:No space left on "
                      "device)")});
}

TEST_F(UpdateUsb, AModuleWithoutTheEntryFails)
{
    install(Module().needsUpdate().lacking("doUpdate_decryption"));
    stick.addImage("alpha", Image());

    EXPECT_EQ(update(), -1);

    expectSteps({verified, saidSigned, contextSet, checked, started,
                 LogFrom("updateUSB", ERROR, like("Error: alpha Firmware doUpdate Fail -1 (*"))});
}

TEST_F(UpdateUsb, AModuleThatIsNotLoadedFails)
{
    ASSERT_EQ(install(Module().needsUpdate().withEmpid("tunerEMP")), -1);
    stick.addImage("tunerEMP", Image());

    EXPECT_EQ(update(), -1);

    expectTexts(logTexts(), {"[uep][UserCaller] the file is signed successfully : "
                             "/opt/media/USBDriveA/tunerEMP.bin\n",
                             "========== [ tunerEMP update start ] ==========",
                             like("Error: tunerEMP Firmware doUpdate Fail -1 (*")});
    EXPECT_TRUE(payloadsOf("alpha").empty());
}

TEST_F(UpdateUsb, ARecordWithoutItsRequiredEntriesFailsWithoutRaising)
{
    stick.addImage("", Image());

    EXPECT_EQ(update(), -1);

    expectSteps({Plugin("verifyFile(null, \"/opt/media/USBDriveA/.bin\", "
                        "\"UserCaller\") = 1"),
                 Log(ERROR,
                     "[uep][UserCaller] the file is signed successfully : "
                     "/opt/media/USBDriveA/.bin\n"),
                 said("Error: alpha has no plug-in")});
}

TEST_F(UpdateUsb, ARecordThatLacksOneRequiredEntryFailsWithoutTouchingThePlugin)
{
    ASSERT_EQ(install(Module().needsUpdate().lacking("checkVersion")), -1);
    stick.addImage("", Image());

    EXPECT_EQ(update(), -1);

    expectTexts(pluginTexts(), {"verifyFile(null, \"/opt/media/USBDriveA/.bin\", "
                                "\"UserCaller\") = 1"});
}

TEST_F(UpdateUsb, AnEntryAtTheAddressNullFailsWithoutTouchingThePlugin)
{
    ASSERT_EQ(install(Module().withNull("checkVersion")), 0);
    stick.addImage("alpha", Image());

    EXPECT_EQ(update(), -1);

    expectSteps({verified, saidSigned, said("Error: alpha has no plug-in")});
}

TEST_F(UpdateUsb, LeavesTheDecisionOfTheEstimateAlone)
{
    install(Module().needsUpdate().takesSeconds(30));
    stick.addImage("alpha", Image());
    ASSERT_EQ(estimate(), 1);
    device.changeModule("alpha", Module().upToDate().takesSeconds(99));

    EXPECT_EQ(update(), -1);

    EXPECT_TRUE(module.getNeedUpdate());
    EXPECT_EQ(module.getExpectedUpdateTime(), 30);
}

TEST_F(UpdateUsb, LeavesTheDecisionAloneWhenItInstallsAsWell)
{
    install(Module().needsUpdate().takesSeconds(30));
    stick.addImage("alpha", Image());
    ASSERT_EQ(estimate(), 1);

    EXPECT_EQ(update(), 0);

    EXPECT_TRUE(module.getNeedUpdate());
    EXPECT_EQ(module.getExpectedUpdateTime(), 30);
}

TEST_F(UpdateUsb, DoesNotAskForTheExpectedTime)
{
    install(Module().needsUpdate().lacking("getExpectedTime"));
    stick.addImage("alpha", Image());

    EXPECT_EQ(update(), 0);
}

TEST_F(UpdateUsb, ClosesTheImageBeforeThePluginIsAsked)
{
    const int before = openDescriptors();
    int whileChecking = 0;
    int whileInstalling = 0;
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

    EXPECT_EQ(update(), 0);

    EXPECT_EQ(whileChecking, before);
    EXPECT_EQ(whileInstalling, before);
}

TEST_F(UpdateUsb, OpensTheImageBeforeItIsVerified)
{
    const int before = openDescriptors();
    int whileVerifying = 0;
    install(Module().needsUpdate());
    stick.addImage("alpha", Image());
    platform().verifyFile.always([&whileVerifying](const char*) {
        whileVerifying = openDescriptors();
        return 1;
    });

    EXPECT_EQ(update(), 0);

    EXPECT_EQ(whileVerifying, before + 1);
}

TEST_F(UpdateUsb, AnExactHeaderWithoutPayloadInstallsNothing)
{
    install(Module().needsUpdate());
    stick.addImage("alpha", Image().version("2.0").payload({}));

    EXPECT_EQ(update(), 0);

    expectLastSteps({started, Plugin("alpha.doUpdate_decryption(0 bytes)"), succeeded});
}

TEST_F(UpdateUsb, APlainTextShorterThanTheHeaderIsFilledUpAndNeverHandedOn)
{
    install(Module().needsUpdate());
    for (const std::size_t size : {0U, 1U, 10U, 63U}) {
        const std::string version(size, 'v');
        stick.addImage("alpha", Image().plain(bytesOf(version)));
        clear();

        EXPECT_EQ(update(), -1) << size;

        SCOPED_TRACE(size);
        expectSteps(
            {verified, saidSigned, contextSet,
             Plugin("alpha.checkVersion(\"" + version + "\", need -1)"), started,
             LogFrom("updateUSB", ERROR, like("Error: alpha Firmware doUpdate Fail -1 (*"))});
    }
}

TEST_F(UpdateUsb, AVersionThatFillsTheHeaderIsTerminatedBehindIt)
{
    install(Module().needsUpdate());
    const std::string version(64, 'v');
    stick.addImage("alpha", Image().version(version).payload(bytesOf("payload")));

    EXPECT_EQ(update(), 0);

    expectStep(Plugin("alpha.checkVersion(\"" + version + "\", need -1)"));
    EXPECT_EQ(payloadsOf("alpha"), std::vector<Bytes>{bytesOf("payload")});
}

TEST_F(UpdateUsb, AnImageUnderAnotherKeyIsLeftToThePluginsChecks)
{
    std::string another = kKeyText;
    another[0] = 'x';
    const Bytes image = Image().payload(noise(100)).encipheredWith(another).bytes();
    const Bytes plain =
        decipher(Bytes(image.begin() + kIvSize, image.end() - kTrailerSize), kKeyText, Image::iv());
    ASSERT_EQ(plain.size(), 160U) << "the last block is lost";
    install(Module().needsUpdate());
    stick.addImage("alpha", image);

    EXPECT_EQ(update(), 0);

    EXPECT_EQ(payloadsOf("alpha"), std::vector<Bytes>{Bytes(plain.begin() + 64, plain.end())});
}

TEST_F(UpdateUsb, ThePayloadStaysReadableAfterTheEntryReturned)
{
    const unsigned char* kept = nullptr;
    install(
        Module().needsUpdate().onPayload([&kept](const unsigned char* data, int) { kept = data; }));
    stick.addImage("alpha", Image().payload(bytesOf("payload")));

    ASSERT_EQ(update(), 0);

    ASSERT_NE(kept, nullptr);
    EXPECT_EQ(Bytes(kept, kept + 7), bytesOf("payload"));
    EXPECT_EQ(cipher_buf_all, kept - kHeaderSize);
    // An allocator writes into the first bytes of what it is given back.
    Bytes header = bytesOf("2.0");
    header.resize(kHeaderSize);
    EXPECT_EQ(Bytes(cipher_buf_all, cipher_buf_all + kHeaderSize), header);
}

TEST_F(UpdateUsb, AnExceptionOutOfThePluginReachesTheCallerWithTheImageClosed)
{
    install(Module());
    device.changeModule("alpha", Module().throwing("setContext"));
    stick.addImage("alpha", Image());
    const int before = openDescriptors();

    EXPECT_THROW(module.updateUSB(key, stick.path()), std::runtime_error);

    EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
}  // namespace quillon::test
