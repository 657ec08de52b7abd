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
    expectText(first.output(), like("*interrupted; the update goes on\n"));
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

/// The module alpha, whose update by a control layer goes on until goOn() is called.
class FollowedLayer : public ControlLayer
{
protected:
    FollowedLayer()
    {
        std::filesystem::create_directories("/run/quillon/run");
        installWaiting("alpha");
    }

    static std::vector<std::string> updateOf(const std::string& module)
    {
        return {"modules", "update", module, "--source", "system"};
    }

    static std::string recordOf(const BackgroundLayer& layer)
    {
        return "/run/quillon/run/modules/" + std::to_string(layer.process()) + "/update.jsonl";
    }

    /// Follows an update of alpha and then beta to its end. Expects both to exit with that code.
    /// @param beta  what beta does, see module-settings.h
    /// @return what the follower was told
    static std::string followAllBeside(const std::string& beta, int code)
    {
        install("beta", beta);
        offer("beta", 60);
        BackgroundLayer update({"modules", "update", "--all", "--source", "system"});
        EXPECT_TRUE(isFlashing("alpha"));
        BackgroundLayer viewer(kFollow);
        EXPECT_TRUE(viewer.says("Updating alpha\n"));
        goOn();
        EXPECT_EQ(update.wait(), code) << update.output();
        EXPECT_EQ(viewer.wait(), code);
        return viewer.output();
    }
};

TEST_F(FollowedLayer, IsShownToEverybodyAndAgainAfterAnInterruption)
{
    BackgroundLayer update(updateOf("alpha"));
    ASSERT_TRUE(isFlashing("alpha"));
    BackgroundLayer first(kFollow);
    BackgroundLayer second({"--json", "progress", "--follow"});
    const std::string process = std::to_string(update.process());
    ASSERT_TRUE(first.says("The control layer of process " + process +
                           " is updating modules, source system\nUpdating alpha\n"));
    ASSERT_TRUE(second.says("{\"event\":\"following\",\"process\":" + process +
                            ",\"source\":\"system\"}\n{\"event\":\"updating\",\"module\":"
                            "\"alpha\"}\n"));
    first.send(SIGINT);
    EXPECT_EQ(first.wait(), 130);
    BackgroundLayer again(kFollow);
    ASSERT_TRUE(again.says("Updating alpha\n"));

    goOn();

    EXPECT_EQ(update.wait(), 0);
    EXPECT_EQ(second.wait(), 0);
    EXPECT_EQ(again.wait(), 0);
    expectText(again.output(), like("*\nNAME   OFFERED  OUTCOME\nalpha  2.0      updated in * s\n"
                                    "The update finished after * s\n"));
    EXPECT_EQ(runCtl(kFollow).out, "No update is running\n");
}

TEST_F(FollowedLayer, OfEveryModuleTellsOfAllOfThem)
{
    const std::string told = followAllBeside("need=1\n", 0);
    for (const char* module : {"alpha", "beta"}) {
        expectText(told, like("*\n" + std::string(module) + "*updated in *"));
    }
}

TEST_F(FollowedLayer, IsShownBeforeOnesThatWaitForIt)
{
    install("beta", "need=1\n");
    offer("beta", 60);
    BackgroundLayer update(updateOf("alpha"));
    ASSERT_TRUE(isFlashing("alpha"));
    BackgroundLayer waiting(updateOf("beta"));
    BackgroundLayer alsoWaiting(updateOf("beta"));
    ASSERT_TRUE(waiting.says("Waiting for another update"));
    ASSERT_TRUE(alsoWaiting.says("Waiting for another update"));

    BackgroundLayer viewer(kFollow);

    EXPECT_TRUE(viewer.says("Updating alpha\n"));
    goOn();
    EXPECT_EQ(viewer.wait(), 0);
}

TEST_F(FollowedLayer, ThatIsKilledNamesTheModule)
{
    BackgroundLayer update(updateOf("alpha"));
    ASSERT_TRUE(isFlashing("alpha"));
    BackgroundLayer viewer(kFollow);
    ASSERT_TRUE(viewer.says("Updating alpha\n"));

    update.send(SIGKILL);

    EXPECT_EQ(update.wait(), -SIGKILL);
    EXPECT_EQ(viewer.wait(), 9);
    expectText(viewer.output(),
               like("*quillonctl: the control layer ended during the update; it was "
                    "at the module alpha; the control layer's log (standard error) says "
                    "more\n"));
    EXPECT_EQ(runCtl(kFollow).out, "No update is running\n");
}

TEST_F(FollowedLayer, ThatFailsNamesTheModuleAndTheReason)
{
    expectText(followAllBeside("need=1\ndoUpdate.result=9\n", 6),
               like("*quillonctl: the update failed at the module beta: the "
                    "module's own code is 9; the control layer's log (*) says more\n"));
}

TEST_F(FollowedLayer, WithoutAnythingToInstallIsASuccess)
{
    installGuided("beta", "wait-in-getActiveVersion");
    std::filesystem::remove_all("/lib/firmware/ext/beta");
    BackgroundLayer update(updateOf("beta"));
    ASSERT_TRUE(eventually([] { return wasAsked("beta", "getActiveVersion("); }));
    BackgroundLayer viewer(kFollow);
    ASSERT_TRUE(viewer.says("is updating modules, source system\n"));

    goOn();

    EXPECT_EQ(update.wait(), 7) << update.output();
    EXPECT_EQ(viewer.wait(), 0);
    expectText(viewer.output(), like("*\nNothing to update\n"));
}

TEST_F(FollowedLayer, WhoseModuleIsStillAtItAfterItsTimeHasTimedOut)
{
    installGuided("beta", "wait-in-doUpdate");
    offer("beta", 1);
    BackgroundLayer update(updateOf("beta"));
    ASSERT_TRUE(isFlashing("beta"));
    BackgroundLayer viewer(kFollow);
    ASSERT_TRUE(viewer.says("Updating beta\n"));

    EXPECT_EQ(update.wait(), 13) << update.output();
    EXPECT_EQ(viewer.wait(), 13);
    expectText(
        viewer.output(),
        like("*\nbeta  2.0      timed out: it is still being updated\nquillonctl: the update "
             "timed out at the module beta: it is still being updated; *(standard error)*\n"));
}

TEST_F(FollowedLayer, WhoseModuleWasLateAndThenDoneHasTimedOut)
{
    installGuided("beta", "wait-in-doUpdate");
    offer("beta", 1);
    BackgroundLayer update({"--json", "modules", "update", "beta", "--source", "system"});
    ASSERT_TRUE(isFlashing("beta"));
    BackgroundLayer viewer({"--json", "progress", "--follow"});
    ASSERT_TRUE(viewer.says("\"updating\""));
    ASSERT_TRUE(eventually(
        [&] { return readAll(recordOf(update)).find("\"late\"") != std::string::npos; }));

    goOn();

    EXPECT_EQ(update.wait(), 13) << update.output();
    EXPECT_EQ(viewer.wait(), 13);
    expectText(viewer.output(), like("*\"late\":true,\"name\":\"beta\",*\n*\"exitCode\":13,*it was "
                                     "updated only after its time*"));
}

TEST_F(FollowedLayer, ThatIsInterruptedWhileItWaitsIsSaidToBe)
{
    leaveSemaphoreBehind();
    BackgroundLayer update(updateOf("alpha"));
    ASSERT_TRUE(update.says("Waiting for another update"));
    BackgroundLayer viewer(kFollow);
    ASSERT_TRUE(viewer.says("is updating modules, source system\n"));

    update.send(SIGINT);

    EXPECT_EQ(update.wait(), 130);
    EXPECT_EQ(viewer.wait(), 6);
    expectText(viewer.output(), like("*\nquillonctl: the update was interrupted\n"));
}

TEST_F(FollowedLayer, ThatKeepsNoRecordIsNamed)
{
    writeFile("/run/quillon/run/modules", "in the way");
    BackgroundLayer update(updateOf("alpha"));
    ASSERT_TRUE(isFlashing("alpha"));

    const CtlResult result = runCtl(kFollow);

    EXPECT_EQ(result.exitCode, 9);
    expectText(result.err,
               like("quillonctl: another control layer is updating, and keeps no record "
                    "to follow: process " +
                    std::to_string(update.process()) + " (quillonctl modules update *\n"));
    goOn();
    EXPECT_EQ(update.wait(), 0);
}

TEST_F(FollowedLayer, ThatKeepsNoRecordCannotBeToldByAStranger)
{
    constexpr uid_t kStranger = 65534;
    if (!canRunCtlAs(kStranger)) {
        GTEST_SKIP() << "there is only one user here";
    }
    writeFile("/run/quillon/run/modules", "in the way");
    BackgroundLayer update(updateOf("alpha"));
    ASSERT_TRUE(isFlashing("alpha"));

    const CtlResult result = runCtl(kFollow, kStranger);
    const CtlResult forPrograms = runCtl({"--json", "progress", "--follow"}, kStranger);

    EXPECT_EQ(result.exitCode, 0);
    const std::string unknown =
        "whether a control layer is updating cannot be told by this user: the update semaphore "
        "/SEM_UPDATE_CONTROL cannot be had: it belongs to root, so only root can use it";
    EXPECT_EQ(result.out, "No recorded update is running; " + unknown + "\n");
    expectText(forPrograms.out, like("{\"event\":\"state\",*\"text\":\"" + unknown + "\"}\n"));
    goOn();
    EXPECT_EQ(update.wait(), 0);
}

TEST_F(FollowedLayer, LeavesItsRecordForAWhile)
{
    goOn();
    BackgroundLayer earlier(updateOf("alpha"));
    const std::string record = recordOf(earlier);
    ASSERT_EQ(earlier.wait(), 0);
    std::filesystem::last_write_time(record, std::filesystem::file_time_type::clock::now());
    ASSERT_EQ(runModules({"update", "alpha", "--source", "system"}).exitCode, 0);
    EXPECT_TRUE(std::filesystem::exists(record)) << "somebody may still be reading";
    std::filesystem::last_write_time(
        record, std::filesystem::file_time_type::clock::now() - std::chrono::minutes(2));

    ASSERT_EQ(runModules({"update", "alpha", "--source", "system"}).exitCode, 0);

    EXPECT_FALSE(std::filesystem::exists(record));
}

TEST_F(FollowedLayer, OfRootWritesWithTheRightsOfTheRecordsOwner)
{
    constexpr uid_t kOwner = 1234;
    if (lchown("/run/quillon/run", kOwner, kOwner) != 0) {
        GTEST_SKIP() << "there are no other users here";
    }
    goOn();
    BackgroundLayer update(updateOf("alpha"));
    const std::string record = recordOf(update);
    ASSERT_EQ(update.wait(), 0);
    struct stat status = {};
    ASSERT_EQ(stat(record.c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, kOwner);
    EXPECT_EQ(status.st_mode & 07777U, 0644U);

    // What the owner puts there leads root nowhere.
    std::filesystem::remove_all("/run/quillon/run/modules");
    std::filesystem::create_directory("/var/tmp/roots");
    std::filesystem::create_symlink("/var/tmp/roots", "/run/quillon/run/modules");
    ASSERT_EQ(runModules({"update", "alpha", "--source", "system"}).exitCode, 0);
    EXPECT_TRUE(std::filesystem::is_empty("/var/tmp/roots"));
}

}  // namespace
}  // namespace quillon::test
