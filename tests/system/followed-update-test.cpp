// An update of the daemon that several programs follow by its records.

#include <signal.h>
#include <sys/stat.h>

#include <filesystem>

#include "support/files.h"
#include "support/texts.h"
#include "system/control-layer.h"
#include "system/system-test.h"
#include "unit/tools/ctl-program.h"

namespace quillon::test {
namespace {

const std::vector<std::string> kFollow = {"progress", "--follow"};

/// The module alpha, whose update goes on when its flash is read.
class FollowedUpdate : public SystemTest
{
protected:
    void SetUp() override
    {
        SystemTest::SetUp();
        std::filesystem::create_directories("/run/quillon/run");
        ASSERT_EQ(mkfifo(kFlash, 0600), 0);
        for (const std::string& module : allModules()) {
            removeModule(module);
        }
        installTestModule("alpha", std::string("need=1\nseconds=600\ncapture=") + kFlash + "\n");
        putImage("alpha", "2.0", "payload");
        startDaemon();
    }

    static void goOn() { EXPECT_EQ(readAll(kFlash), "payload"); }

    static constexpr const char* kFlash = "/tmp/flash";
};

TEST_F(FollowedUpdate, IsShownToEverybodyAndAgainAfterAnInterruption)
{
    BackgroundLayer update({"update", kStick});
    ASSERT_TRUE(update.says("Updating alpha\n"));
    BackgroundLayer first(kFollow);
    BackgroundLayer second({"--json", "progress", "--follow"});
    ASSERT_TRUE(first.says("The update from /opt/media/USBDriveA/ is running\nUpdating alpha\n"));
    ASSERT_TRUE(second.says("{\"event\":\"updating\",\"module\":\"alpha\"}\n"));
    first.send(SIGINT);
    EXPECT_EQ(first.wait(), 130);
    expectText(first.output(), like("*interrupted; the update goes on in the update service\n"));
    BackgroundLayer again(kFollow);
    ASSERT_TRUE(again.says("Updating alpha\n"));

    goOn();

    EXPECT_EQ(update.wait(), 0);
    EXPECT_EQ(second.wait(), 0);
    EXPECT_EQ(again.wait(), 0);
    expectText(again.output(), like("*\nNAME   OFFERED  OUTCOME\nalpha  2.0      updated in * s\n"
                                    "The update finished after * s\n"));
    expectText(second.output(), like("*\n{\"event\":\"progress\",\"percent\":*,\"secondsLeft\":*}\n"
                                     "*{\"event\":\"updated\",*\n{\"event\":\"finished\",*}\n"));
    EXPECT_EQ(runCtl(kFollow).out, "No update is running\n");
}

TEST_F(FollowedUpdate, OfAServiceThatIsKilledNamesTheModule)
{
    BackgroundLayer update({"update", kStick});
    ASSERT_TRUE(update.says("Updating alpha\n"));
    BackgroundLayer viewer(kFollow);
    ASSERT_TRUE(viewer.says("Updating alpha\n"));

    daemon.kill();

    EXPECT_EQ(viewer.wait(), 9);
    EXPECT_EQ(update.wait(), 9);
    for (const BackgroundLayer* program : {&viewer, &update}) {
        expectText(program->output(), like("*quillonctl: *; *at the module alpha*\n"));
    }
    EXPECT_EQ(runCtl(kFollow).out, "No update is running\n");
}

TEST_F(FollowedUpdate, IsTimedByItsOwnRecordWhereTheEstimatesIsOfAnotherStick)
{
    BackgroundLayer update({"update", kStick});
    ASSERT_TRUE(update.says("Updating alpha\n"));
    writeFile("/run/quillon/run/estimate.jsonl",
              "{\"event\":\"began\",\"clock\":1,\"directory\":\"/media/\"}\n");
    BackgroundLayer viewer(kFollow);

    EXPECT_TRUE(viewer.says("(about 10 min left)\n"));

    std::filesystem::remove("/run/quillon/run/update.jsonl");
    EXPECT_EQ(viewer.wait(), 9);
    expectText(viewer.output(), like("*the record of the update is gone*"));
    goOn();
    EXPECT_EQ(update.wait(), 0);
}

TEST_F(FollowedUpdate, CannotBeShownWithoutRecords)
{
    std::filesystem::remove_all("/run/quillon/run");

    const CtlResult result = runCtl(kFollow);

    EXPECT_EQ(result.exitCode, 9);
    expectText(result.err, like("quillonctl: *keeps no records*\"quillonctl progress\" asks*\n"));
}

TEST_F(FollowedUpdate, IsNotTakenFromARecordWhoseProcessIsAnotherOneNow)
{
    writeFile("/run/quillon/run/update.jsonl",
              "{\"event\":\"began\",\"clock\":0.001,\"directory\":\"/\",\"pid\":" +
                  std::to_string(getpid()) + "}\n");

    EXPECT_EQ(runCtl(kFollow).out, "No update is running\n");
}

}  // namespace
}  // namespace quillon::test
