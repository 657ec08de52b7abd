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

TEST_F(NeedUpdateList, InstallsNothing)
{
    install(Module().needsUpdate());
    stick.addImage("alpha", Image());

    EXPECT_EQ(estimate(), 1);

    EXPECT_TRUE(payloadsOf("alpha").empty());
}

}  // namespace
}  // namespace quillon::test
