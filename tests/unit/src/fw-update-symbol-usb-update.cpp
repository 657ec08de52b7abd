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

}  // namespace
}  // namespace quillon::test
