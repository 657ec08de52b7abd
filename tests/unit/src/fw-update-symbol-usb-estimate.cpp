// Asking a module whether its image on a stick is to be installed, and how long that takes.

#include <string>

#include "usb-images.h"

namespace quillon::test {
namespace {

using namespace fakes;

class NeedUpdateList : public UsbImages
{
protected:
    static Step said(const std::string& text) { return LogFrom("getNeedUpdateList", ERROR, text); }

    // An earlier decision, to be replaced or kept.
    void decideEarlier()
    {
        device.changeModule("alpha", Module().needsUpdate().takesSeconds(30));
        stick.addImage("alpha", Image());
        ASSERT_EQ(estimate(), 1);
        clear();
    }

    void expectDecision(bool need, int seconds)
    {
        EXPECT_EQ(module.getNeedUpdate(), need);
        EXPECT_EQ(module.getExpectedUpdateTime(), seconds);
    }

    const Step checked = Plugin("alpha.checkVersion(\"2.0\", need -1)");
    const Step askedForTime = Plugin("alpha.getExpectedTime(0)");
};

TEST_F(NeedUpdateList, VerifiesDeciphersAndAsksInThisOrder)
{
    install(Module().needsUpdate().takesSeconds(30));
    stick.addImage("alpha", Image().version("2.0").payload(noise(50000)));

    EXPECT_EQ(estimate(), 1);

    expectSteps({verified, saidSigned, contextSet, checked, askedForTime});
    expectDecision(true, 30);
}

TEST_F(NeedUpdateList, RefusesANullKey)
{
    install(Module().needsUpdate());

    EXPECT_EQ(module.getNeedUpdateList(nullptr, stick.path()), -1);
    EXPECT_EQ(module.getNeedUpdateList(nullptr, nullptr), -1);

    expectSteps({said("Error: ckey  is nullptr"), said("Error: ckey  is nullptr")});
}

TEST_F(NeedUpdateList, RefusesANullPath)
{
    install(Module().needsUpdate());

    EXPECT_EQ(module.getNeedUpdateList(key, nullptr), -1);

    expectSteps({said("Error: image_path is nullptr")});
}

TEST_F(NeedUpdateList, RefusesAMissingImageAndKeepsTheDecision)
{
    install(Module());
    decideEarlier();

    EXPECT_EQ(module.getNeedUpdateList(key, "/opt/media"), -1);

    expectSteps({said("Error: /opt/mediaalpha.bin open fail")});
    expectDecision(true, 30);
}

TEST_F(NeedUpdateList, RefusesAnUnsignedImageBeforeDecipheringIt)
{
    install(Module().needsUpdate());
    stick.addImage("alpha", Image());
    device.verifierSays(0);
    recordCalls({"EVP_CipherInit", "EVP_CipherUpdate", "fread"});

    EXPECT_EQ(estimate(), -1);

    expectSteps(
        {refused, saidNotSigned, said("Error: /opt/media/USBDriveA/alpha.bin is NOT signed ")});
    expectDecision(false, 0);
}

TEST_F(NeedUpdateList, TakesAnyAnswerOfTheVerifierButZeroForSigned)
{
    install(Module().needsUpdate());
    stick.addImage("alpha", Image());
    device.verifierSays(-1);

    EXPECT_EQ(estimate(), 1);
}

TEST_F(NeedUpdateList, GoesOnWhateverSetContextAnswers)
{
    install(Module().needsUpdate().returning("setContext", -1));
    stick.addImage("alpha", Image());

    EXPECT_EQ(estimate(), 1);
}

TEST_F(NeedUpdateList, RefusesAnImageShorterThanItsIv)
{
    install(Module().needsUpdate());
    for (const std::size_t size : {0U, 1U, 15U}) {
        stick.addImage("alpha", Image().cutTo(size));
        clear();

        EXPECT_EQ(estimate(), -1);

        SCOPED_TRACE(size);
        expectSteps({verified, saidSigned, contextSet, said("Error: iv is worng")});
    }
}

TEST_F(NeedUpdateList, SaysSoWhenTheImageCannotBeDeciphered)
{
    if (!canFailAllocations()) {
        GTEST_SKIP() << "the sanitizer's allocator cannot be made to fail";
    }
    install(Module().needsUpdate());
    const Bytes image = Image().payload(noise(12345)).bytes();
    stick.addImage("alpha", image);
    failAllocation(image.size());

    EXPECT_EQ(estimate(), -1);

    expectSteps({verified, saidSigned, contextSet, said("Error: Decryption data is null")});
}

TEST_F(NeedUpdateList, FeedsSixteenBytesOfTheTrailerAsWell)
{
    install(Module().needsUpdate());
    const Bytes image = Image().payload(noise(1000)).bytes();
    stick.addImage("alpha", image);
    recordCalls({"EVP_CipherInit", "EVP_CipherUpdate"});

    EXPECT_EQ(estimate(), 1);

    expectTexts(callTexts(),
                {"EVP_CipherInit(0) = 1",
                 "EVP_CipherUpdate(" + std::to_string(image.size() - kTrailerSize) + ") = 1"});
}

TEST_F(NeedUpdateList, FailsWhenThePluginCannotCheckTheVersion)
{
    install(Module());
    decideEarlier();
    device.changeModule("alpha", Module().upToDate().returning("checkVersion", 2));

    EXPECT_EQ(estimate(), -1);

    expectSteps({verified, saidSigned, contextSet, checked,
                 said("Error: alpha Firmware CheckVersion Fail")});
    expectDecision(true, 30);
}

TEST_F(NeedUpdateList, ClearsTheMarkWhenNoUpdateIsNeeded)
{
    install(Module());
    decideEarlier();
    device.changeModule("alpha", Module().upToDate().takesSeconds(5));

    EXPECT_EQ(estimate(), 0);

    expectSteps({verified, saidSigned, contextSet, checked, askedForTime});
    expectDecision(false, 5);
}

TEST_F(NeedUpdateList, EveryNeedButZeroMarksTheModuleAndIsHandedBack)
{
    install(Module());
    stick.addImage("alpha", Image());
    for (const int need : {2, -1, -7}) {
        device.changeModule("alpha", Module().needs(need).takesSeconds(8));

        EXPECT_EQ(estimate(), need);

        expectDecision(true, 8);
    }
}

TEST_F(NeedUpdateList, APluginThatGivesNoAnswerIsMarkedWithTheUnansweredValue)
{
    install(Module().leavesNeedAlone().takesSeconds(8));
    stick.addImage("alpha", Image());

    EXPECT_EQ(estimate(), -1);

    expectDecision(true, 8);
}

TEST_F(NeedUpdateList, APluginWithoutExpectedTimeNeedsNoUpdateEvenWhenItDoes)
{
    install(Module().needsUpdate().lacking("getExpectedTime"));
    stick.addImage("alpha", Image());

    EXPECT_EQ(estimate(), 0);

    expectSteps(
        {verified, saidSigned, contextSet, checked, said("Error: alpha getExpectedTime Fail")});
    expectDecision(false, 0);
}

TEST_F(NeedUpdateList, AFailingExpectedTimeKeepsTheDecision)
{
    install(Module());
    decideEarlier();
    device.changeModule("alpha",
                        Module().upToDate().takesSeconds(99).returning("getExpectedTime", 1));

    EXPECT_EQ(estimate(), 0);

    expectLastSteps({askedForTime, said("Error: alpha getExpectedTime Fail")});
    expectDecision(true, 30);
}

TEST_F(NeedUpdateList, AnExpectedTimeThatIsNotFilledInCountsAsZero)
{
    install(Module());
    decideEarlier();
    device.changeModule("alpha", Module().needsUpdate().leavesSecondsAlone());

    EXPECT_EQ(estimate(), 1);

    expectDecision(true, 0);
}

TEST_F(NeedUpdateList, AModuleThatIsNotLoadedCannotTellTheTime)
{
    ASSERT_EQ(install(Module().needsUpdate().withEmpid("tunerEMP")), -1);
    stick.addImage("tunerEMP", Image());

    EXPECT_EQ(estimate(), 0);

    expectLastSteps({contextSet, checked, said("Error: tunerEMP getExpectedTime Fail")});
    expectDecision(false, 0);
}

TEST_F(NeedUpdateList, ARecordWithoutItsRequiredEntriesFailsWithoutRaising)
{
    stick.addImage("", Image());

    EXPECT_EQ(estimate(), -1);

    expectSteps({Plugin("verifyFile(null, \"/opt/media/USBDriveA/.bin\", "
                        "\"UserCaller\") = 1"),
                 Log(ERROR,
                     "[uep][UserCaller] the file is signed successfully : "
                     "/opt/media/USBDriveA/.bin\n"),
                 said("Error: alpha has no plug-in")});
}

TEST_F(NeedUpdateList, ARecordThatLacksOneRequiredEntryFailsWithoutTouchingThePlugin)
{
    ASSERT_EQ(install(Module().needsUpdate().lacking("checkVersion")), -1);
    stick.addImage("", Image());

    EXPECT_EQ(estimate(), -1);

    expectTexts(pluginTexts(), {"verifyFile(null, \"/opt/media/USBDriveA/.bin\", "
                                "\"UserCaller\") = 1"});
}

TEST_F(NeedUpdateList, AnEntryAtTheAddressNullFailsWithoutTouchingThePlugin)
{
    ASSERT_EQ(install(Module().withNull("checkVersion")), 0);
    stick.addImage("alpha", Image());

    EXPECT_EQ(estimate(), -1);

    expectSteps({verified, saidSigned, said("Error: alpha has no plug-in")});
}

TEST_F(NeedUpdateList, ClosesTheImageBeforeThePluginIsAsked)
{
    const int before = openDescriptors();
    int whileChecking = 0;
    install(Module().onCheckVersion([&whileChecking](const char*, int* need) {
        whileChecking = openDescriptors();
        *need = 1;
        return 0;
    }));
    stick.addImage("alpha", Image());

    EXPECT_EQ(estimate(), 1);

    EXPECT_EQ(whileChecking, before);
}

TEST_F(NeedUpdateList, OpensTheImageBeforeItIsVerified)
{
    const int before = openDescriptors();
    int whileVerifying = 0;
    install(Module().needsUpdate());
    stick.addImage("alpha", Image());
    platform().verifyFile.always([&whileVerifying](const char*) {
        whileVerifying = openDescriptors();
        return 1;
    });

    EXPECT_EQ(estimate(), 1);

    EXPECT_EQ(whileVerifying, before + 1);
}

TEST_F(NeedUpdateList, APlainTextShorterThanTheHeaderIsFilledUp)
{
    std::string seen = "nothing";
    install(Module().onCheckVersion([&seen](const char* version, int* need) {
        seen = version;
        *need = 1;
        return 0;
    }));
    // Without a whole block in front of the trailer only its sixteen bytes are fed, and withheld.
    stick.addImage("alpha", Image().plain({}).cipherText({}));

    EXPECT_EQ(estimate(), 1);
    EXPECT_EQ(seen, "");

    // Here its padding comes out as well, since the end of the cipher text is not the fed one.
    stick.addImage("alpha", Image().plain(bytesOf("0123456789")));

    EXPECT_EQ(estimate(), 1);
    EXPECT_EQ(seen, "0123456789" + std::string(6, '\6'));
}

TEST_F(NeedUpdateList, AnImageOfAnIvAloneHasAnEmptyVersion)
{
    Bytes header;
    install(Module().onCheckVersion([&header](const char* version, int* need) {
        header.assign(version, version + kHeaderSize);
        *need = 0;
        return 0;
    }));
    stick.addImage("alpha", Image().cutTo(16));

    EXPECT_EQ(estimate(), 0);

    EXPECT_EQ(header, Bytes(kHeaderSize)) << "nothing but zeros, to the end of the header";
}

TEST_F(NeedUpdateList, AVersionThatFillsTheHeaderIsTerminatedBehindIt)
{
    install(Module().needsUpdate());
    const std::string version(64, 'v');
    stick.addImage("alpha", Image().version(version).payload(bytesOf("payload")));

    EXPECT_EQ(estimate(), 1);

    expectStep(Plugin("alpha.checkVersion(\"" + version + "\", need -1)"));
}

TEST_F(NeedUpdateList, InstallsNothing)
{
    install(Module().needsUpdate());
    stick.addImage("alpha", Image());

    EXPECT_EQ(estimate(), 1);

    EXPECT_TRUE(payloadsOf("alpha").empty());
}

TEST_F(NeedUpdateList, AnExceptionOutOfThePluginReachesTheCallerWithTheImageClosed)
{
    install(Module());
    device.changeModule("alpha", Module().throwing("setContext"));
    stick.addImage("alpha", Image());
    const int before = openDescriptors();

    EXPECT_THROW(module.getNeedUpdateList(key, stick.path()), std::runtime_error);

    EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
}  // namespace quillon::test
