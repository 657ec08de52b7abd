// quillonctl modules update: the real program with test plug-ins. Updates from packages, which are
// really mounted, are in tests/system.

#include <gmock/gmock.h>

#include <fcntl.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <thread>

#include "support/texts.h"
#include "support/wait.h"
#include "unit/tools/ctl-modules-device.h"

using testing::ContainsRegex;

using quillon::test::expectNoText;
using quillon::test::expectNoTextAmong;
using quillon::test::expectText;
using quillon::test::expectTextAmong;
using quillon::test::like;
using quillon::test::waitFor;

class CtlModulesUpdate : public CtlModules
{
protected:
    Json::Value update(const std::string& name, int exitCode)
    {
        return of(name, json({"update", name, "--source", "system"}, exitCode));
    }

    static bool waitForCall(const std::string& name, const std::string& call)
    {
        return waitFor(name + "." + call, [&] {
            const std::vector<std::string> calls = callsOf(name);
            return std::any_of(calls.begin(), calls.end(), [&call](const std::string& made) {
                return made.rfind(call, 0) == 0;
            });
        });
    }

    sem_t* openSemaphore()
    {
        sem_t* semaphore = sem_open("/SEM_UPDATE_CONTROL", O_CREAT, 0600, 1);
        EXPECT_NE(semaphore, SEM_FAILED);
        return semaphore;
    }
};

TEST_F(CtlModulesUpdate, HandsTheImageToThePlugIn)
{
    install("alpha", "need=1\n");
    offer("alpha");

    const Json::Value document = json({"update", "alpha", "--source", "system"});

    EXPECT_EQ(document["event"], "modules-update");
    EXPECT_EQ(document["source"], "system");
    EXPECT_EQ(document["exitCode"], 0);
    EXPECT_EQ(of("alpha", document)["outcome"], "updated");
    EXPECT_EQ(of("alpha", document)["running"], "2.0");
    expectTextAmong(callsOf("alpha"), like("doUpdate(\"/lib/firmware/ext/alpha/alpha.bin\", *"));
    expectTextAmong(callsOf("alpha"), "setContext(\"alpha\", 4, \"\")");
}

TEST_F(CtlModulesUpdate, TellsEveryPlugInThatTheRunIsOver)
{
    install("alpha", "need=1\n");
    install("beta");
    offer("alpha");

    update("alpha", 0);

    expectTextAmong(callsOf("alpha"), "allUpdateDone()");
    expectTextAmong(callsOf("beta"), "allUpdateDone()");
    expectNoTextAmong(callsOf("beta"), like("*checkVersion*"));
}

TEST_F(CtlModulesUpdate, ThatIsNotNeededIsNoFailure)
{
    install("alpha", "need=0\n");
    offer("alpha");

    const ModulesResult result = runModules({"update", "alpha", "--source", "system"});

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.out, "NAME   RUNNING  OUTCOME\nalpha  1.0      no update needed\n");
    EXPECT_EQ(result.err, "");
    expectNoTextAmong(callsOf("alpha"), like("*doUpdate*"));
}

TEST_F(CtlModulesUpdate, WithoutAnImageExitsWith7)
{
    install("alpha", "need=1\n");

    EXPECT_EQ(update("alpha", 7)["outcome"], "nothing-offered");
    EXPECT_EQ(of("alpha", json({"update", "alpha"}, 7))["reason"], "no package");
}

TEST_F(CtlModulesUpdate, FromADamagedImageExitsWith6)
{
    install("alpha", "need=1\n");
    offerWithWrongChecksum("alpha");

    const Json::Value alpha = update("alpha", 6);

    EXPECT_EQ(alpha["outcome"], "failed");
    EXPECT_EQ(alpha["reason"], "its image does not match its checksum");
}

TEST_F(CtlModulesUpdate, ThatFailsExitsWith6AndTellsTheModulesOwnCode)
{
    install("alpha", "need=1\ndoUpdate.result=5\n");
    offer("alpha");

    EXPECT_EQ(update("alpha", 6)["reason"], "the module's own code is 5");
    const ModulesResult result = runModules({"update", "alpha", "--source", "system"});
    EXPECT_EQ(result.exitCode, 6);
    expectText(result.out, like("*alpha  1.0      failed: the module's own code is 5\n"));
    EXPECT_EQ(result.err, "quillonctl: not updated as wanted: alpha\n");
}

TEST_F(CtlModulesUpdate, ThatRaisesAnExceptionFails)
{
    install("flash", "need=1\ndoUpdate.effect=throw-unknown\n");
    install("check", "need=1\ncheckVersion.effect=throw\n");
    install("done", "need=1\nallUpdateDone.effect=throw\n");
    for (const char* name : {"flash", "check", "done"}) {
        offer(name);
    }

    const std::vector<std::string> options = {"--source", "system"};
    EXPECT_EQ(runModules({"update", "flash", "--source", "system"}).exitCode, 6);
    expectText(runModules({"update", "check", "--source", "system"}).out,
               like("*failed: an exception was raised: checkVersion*"));
    const ModulesResult done = runModules({"update", "done", "--source", "system"});
    EXPECT_EQ(done.exitCode, 0);
    expectText(done.err, like("*quillonctl: warning: not every module was told that the run "
                              "is over: an exception was raised: allUpdateDone\n*"));
}

TEST_F(CtlModulesUpdate, OfAProcessModuleRunsIt)
{
    install("ext-tool");

    EXPECT_EQ(of("ext-tool", json({"update", "ext-tool"}))["outcome"], "updated");
    expectTextAmong(callsOf("ext-tool"), "doUpdate(\"ext-tool\", 0)");

    install("ext-tool", "doUpdate.result=3\n");
    EXPECT_EQ(of("ext-tool", json({"update", "ext-tool"}, 6))["outcome"], "failed");
}

TEST_F(CtlModulesUpdate, ThatOverrunsItsTimeIsWaitedForAndExitsWith13)
{
    install("alpha", "need=1\ndoUpdate.delay_ms=3500\n");
    offer("alpha", 0);

    const ModulesResult result = runModules({"update", "alpha", "--source", "system"});

    EXPECT_EQ(result.exitCode, 13);
    expectText(result.out, like("*The time of alpha is over, but it is still being updated*"));
    expectText(result.out,
               like("*alpha  2.0      timed out: it was updated only after its time\n"));
    expectText(result.log, like("*alpha update timeout*"));
}

TEST_F(CtlModulesUpdate, ThatNeverEndsIsGivenUpWithoutACrash)
{
    install("alpha", "need=1\ndoUpdate.effect=hang\n");
    offer("alpha", 0);

    const Json::Value alpha = update("alpha", 13);

    EXPECT_EQ(alpha["outcome"], "timed-out");
    EXPECT_EQ(alpha["reason"], "it is still being updated");
    EXPECT_FALSE(alpha.isMember("running")) << "a busy plug-in is asked nothing";
}

TEST_F(CtlModulesUpdate, ShowsThePlugInsProgress)
{
    install("alpha", "need=1\nprogress=42\ndoUpdate.delay_ms=1500\n");
    offer("alpha", 100);

    expectText(runModules({"update", "alpha", "--source", "system"}).out,
               like("Updating alpha\n42 % (about 100 s left)\nNAME*"));
    EXPECT_THAT(runCtlOnTerminal({"modules", "update", "alpha", "--source", "system"}, 60).out,
                ContainsRegex("\r\\[#+\\.+\\]  42 %, about (100|99) s left"));
}

TEST_F(CtlModulesUpdate, ShowsTheTimeItHasTakenWhereThePlugInTellsNone)
{
    install("alpha", "need=1\ndoUpdate.delay_ms=2600\n", "without-getUpdateProgress");
    offer("alpha", 2);

    expectText(
        runModules({"update", "alpha", "--source", "system"}).out,
        like("*0 % (about 2 s left)\n50 % (about 1 s left)\n*99 % (longer than expected)\n*"));
}

TEST_F(CtlModulesUpdate, WaitsForTheUpdateOfAnotherProcessAndSaysSo)
{
    install("alpha", "need=1\n");
    offer("alpha");
    sem_t* semaphore = openSemaphore();
    ASSERT_EQ(sem_wait(semaphore), 0);
    CtlProgram program({"modules", "update", "alpha", "--source", "system"});
    ASSERT_TRUE(waitForCall("alpha", "checkVersion"));
    std::this_thread::sleep_for(std::chrono::milliseconds(2000));
    expectNoTextAmong(callsOf("alpha"), like("doUpdate(*"));
    sem_post(semaphore);

    const ModulesResult result = splitLog(program.finish());

    EXPECT_EQ(result.exitCode, 0);
    expectText(result.out, like("Waiting for another update on this device\n*"));
    expectTextAmong(callsOf("alpha"), like("doUpdate(*"));
}

TEST_F(CtlModulesUpdate, WithoutTheSemaphoreFlashesNothingAndExitsWith9)
{
    if (geteuid() == 0) {
        // Nothing is forbidden to root; a directory in the semaphore's place is in everybody's way.
        mkdir("/dev/shm/sem.SEM_UPDATE_CONTROL", 0700);
    } else {
        sem_close(openSemaphore());
        chmod("/dev/shm/sem.SEM_UPDATE_CONTROL", 0);
    }
    install("alpha", "need=1\n");
    offer("alpha");

    expectText(json({"update", "alpha", "--source", "system"}, 9)["text"].asString(),
               like("the update semaphore /SEM_UPDATE_CONTROL cannot be had*"));
    EXPECT_EQ(json({"update", "--all"}, 9)["exitCode"], 9);
    expectNoTextAmong(callsOf("alpha"), like("checkVersion*"));
}

TEST_F(CtlModulesUpdate, GoesOnWhenItIsInterruptedAndSaysWhy)
{
    install("alpha", "need=1\ndoUpdate.delay_ms=1000\n");
    offer("alpha");
    CtlProgram program({"modules", "update", "alpha", "--source", "system"});
    ASSERT_TRUE(waitForCall("alpha", "doUpdate("));
    program.sendSignal(SIGINT);

    const ModulesResult result = splitLog(program.finish());

    EXPECT_EQ(result.exitCode, 0);
    expectText(result.err, like("*an update cannot be interrupted safely, it goes on*"));
    expectText(result.out, like("*updated\n"));
}

TEST_F(CtlModulesUpdate, OfAllUpdatesEachModuleAsFarAsItGoes)
{
    install("good", "need=1\n");
    install("bad", "need=1\ndoUpdate.result=7\n");
    install("same", "need=0\n");
    install("none", "need=1\n");
    install("lacking", "need=1\n", "without-doUpdate");
    install("ext-tool");
    for (const char* name : {"good", "bad", "same", "lacking"}) {
        offer(name);
    }

    const Json::Value document = json({"update", "--all", "--source", "system"}, 6);

    EXPECT_EQ(document["exitCode"], 6);
    EXPECT_EQ(of("good", document)["outcome"], "updated");
    EXPECT_EQ(of("bad", document)["outcome"], "failed");
    EXPECT_EQ(of("same", document)["outcome"], "not-needed");
    EXPECT_EQ(of("none", document)["outcome"], "nothing-offered");
    EXPECT_EQ(of("lacking", document)["outcome"], "unusable");
    EXPECT_EQ(of("ext-tool", document)["outcome"], "by-name-only");
    expectTextAmong(callsOf("same"), "allUpdateDone()");
    expectNoTextAmong(callsOf("ext-tool"), like("doUpdate*"));
}

TEST_F(CtlModulesUpdate, OfAllTellsNobodyThatItIsOverWhileOneIsStillBeingUpdated)
{
    install("alpha", "need=0\n");
    install("beta", "need=1\ndoUpdate.effect=hang\n");
    offer("alpha");
    offer("beta", 0);

    const Json::Value document = json({"update", "--all", "--source", "system"}, 13);

    EXPECT_EQ(of("beta", document)["outcome"], "timed-out");
    expectNoTextAmong(callsOf("alpha"), "allUpdateDone()");
    expectNoTextAmong(callsOf("beta"), "allUpdateDone()");
}

TEST_F(CtlModulesUpdate, OfAllWithNothingToDoIsNoFailure)
{
    install("alpha", "need=0\n");
    install("lacking", "need=1\n", "without-doUpdate");
    offer("alpha");

    EXPECT_EQ(of("alpha", json({"update", "--all", "--source", "system"}))["outcome"],
              "not-needed");
    EXPECT_EQ(of("alpha", json({"update", "--all"}))["outcome"], "nothing-offered");
}

TEST_F(CtlModulesUpdate, ThatLeavesTheOldVersionRunningWarns)
{
    install("alpha", "need=1\nversion=1.0\n");
    install("beta", "need=1\n");
    for (const char* name : {"alpha", "beta"}) {
        offer(name);
    }

    for (const std::string what : {"alpha", "--all"}) {
        const ModulesResult result = runModules({"update", what, "--source", "system"});

        EXPECT_EQ(result.exitCode, 0) << "the module says success";
        expectText(result.out, like("*alpha  1.0      updated; it still runs 1.0, not 2.0\n*"));
        expectText(
            result.err,
            like("quillonctl: warning: the module alpha answered that it was updated, but it "
                 "still runs 1.0, not 2.0; restart the device, then \"quillonctl modules "
                 "list\" tells what it runs; if that has not changed, ask the module's "
                 "maker\n"));
        expectNoText(result.err, like("*beta*"));
    }
}

TEST_F(CtlModulesUpdate, ThatLeavesTheOldVersionRunningWarnsProgramsAsWell)
{
    install("alpha", "need=1\nversion=1.0\n");
    offer("alpha");

    const ModulesResult result = runModules({"update", "alpha", "--source", "system", "--json"});

    expectText(result.out, like("{\"event\":\"warning\",\"text\":\"the module alpha *\"}\n"
                                "{\"event\":\"modules-update\",*\"outcome\":\"updated\",*}\n"));
    expectText(result.err, like("quillonctl: warning: the module alpha *"));
}

TEST_F(CtlModulesUpdate, ThatInstallsTheSameVersionOnceMoreDoesNotWarn)
{
    install("alpha", "need=1\nversion=2.0\n");
    install("mute", "need=1\ngetActiveVersion.result=-1\n");
    for (const char* name : {"alpha", "mute"}) {
        offer(name);
    }

    EXPECT_EQ(runModules({"update", "--all", "--source", "system"}).err, "");
}
