// One stick after another. The service remembers which modules an earlier stick was for.

#include <filesystem>

#include "support/texts.h"
#include "system/system-test.h"
#include "unit/tools/ctl-program.h"
#include "unit/verifier/test-keys.h"

namespace quillon::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kOtherStick = "/opt/media/USBDriveB/";

class StickChange : public SystemTest
{
protected:
    void SetUp() override
    {
        SystemTest::SetUp();
        ASSERT_NO_FATAL_FAILURE(startDaemon());
    }

    /// Puts in a stick for this module alone.
    static void changeStick(const std::string& module, const std::string& version)
    {
        fs::remove_all(kStick);
        fs::create_directories(kStick);
        putImage(module, version, "payload");
    }

    /// quillonctl is another client: the test's own steps aside.
    static CtlResult updateFrom(const char* stick = kStick) { return runCtl({"update", stick}); }

    void waitForTheEndOfARun() { EXPECT_TRUE(daemon.logs("update succeeded", kLongestUpdate)); }
};

TEST_F(StickChange, AfterAnUpdateTheNextSticksAreUpdatedFrom)
{
    changeStick("tuner", "2.0");
    const CtlResult first = updateFrom();
    EXPECT_EQ(first.exitCode, 0) << first.err;
    expectText(first.out, like("*\nLooking once more at the stick\n*"));
    EXPECT_EQ(first.err, "");

    changeStick("panel", "2.0");
    const CtlResult second = updateFrom();
    EXPECT_EQ(second.exitCode, 0) << second.err;
    EXPECT_EQ(version("panel"), "2.0");

    changeStick("tuner", "3.0");
    const CtlResult third = updateFrom();
    EXPECT_EQ(third.exitCode, 0) << third.err;
    EXPECT_EQ(version("tuner"), "3.0");
}

TEST_F(StickChange, AfterAnUpdateWhoseStickIsGoneItIsSaidWhatHelps)
{
    setModule("tuner", 1000, 5);
    changeStick("tuner", "2.0");
    putImage("tuner", "2.0", std::string(2000, 'x'));
    CtlProgram update({"update", kStick});
    ASSERT_TRUE(daemon.logs("update start"));
    fs::remove_all(kStick);

    const CtlResult result = update.finish();
    EXPECT_EQ(result.exitCode, 0);
    expectText(result.err, like("*the stick was taken out*"));
    expectText(result.err, like("*\"quillonctl estimate /opt/media/USBDriveA\"*"));
    expectText(result.err, like("*restart the update service*"));

    changeStick("panel", "2.0");
    EXPECT_EQ(updateFrom().exitCode, 6);
    changeStick("tuner", "2.0");
    EXPECT_EQ(runCtl({"estimate", kStick}).exitCode, 7);
    changeStick("panel", "3.0");
    EXPECT_EQ(updateFrom().exitCode, 0);
}

TEST_F(StickChange, AfterAModuleHasFailedItIsSaidThatItNeedsItsStick)
{
    installTestModule("horn", "need=1\ndoUpdate_decryption.result=-1\n");
    daemon.kill();
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    changeStick("horn", "2.0");

    const CtlResult result = updateFrom();
    EXPECT_EQ(result.exitCode, 6);
    expectText(result.err, like("*the update failed*"));
    expectText(result.err, like("*still needs*"));
    expectText(result.err, like("*\"quillonctl update /opt/media/USBDriveA\"*"));
}

TEST_F(StickChange, AfterAnUpdateWhoseEndTheVerbProgressIsToldTheNextStickIsUpdatedFrom)
{
    changeStick("tuner", "2.0");
    estimate();
    ASSERT_EQ(channel->ask(MQ_COMMAND_START)->result, MQ_RESULT_ACCEPTED);
    waitForTheEndOfARun();
    const auto toldTheEnd = [] {
        return runCtl({"progress"}).out.find("The update finished\nLooking once more") == 0;
    };
    EXPECT_TRUE(eventually(toldTheEnd, kLongestUpdate));

    changeStick("panel", "2.0");
    EXPECT_EQ(updateFrom().exitCode, 0);
}

TEST_F(StickChange, AfterAnUpdateWhoseEndNobodyWasToldAnotherStickBesideItIsUpdatedFrom)
{
    changeStick("tuner", "2.0");
    estimate();
    ASSERT_EQ(channel->ask(MQ_COMMAND_START)->result, MQ_RESULT_ACCEPTED);
    waitForTheEndOfARun();
    fs::create_directories(kOtherStick);
    makeImage(std::string(kOtherStick) + "panel.bin", "a", "2.0", "payload");

    CtlResult result;
    const auto isOver = [&result] {  // a moment after the last log line
        result = updateFrom(kOtherStick);
        return result.exitCode != 8;
    };
    EXPECT_TRUE(eventually(isOver, kLongestUpdate));
    EXPECT_EQ(result.exitCode, 0) << result.err;
    expectText(result.out, like("An earlier update had finished\n"
                                "Looking once more at the stick\n"
                                "Checking /opt/media/USBDriveB\n*"));
    EXPECT_EQ(version("panel"), "2.0");
}

}  // namespace
}  // namespace quillon::test
