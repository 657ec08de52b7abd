// What quillonctl tells of the versions that the modules run: test plug-ins beside a scripted
// service that keeps records.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "support/files.h"
#include "support/texts.h"
#include "support/wait.h"
#include "unit/client/fake-service.h"
#include "unit/tools/ctl-modules-device.h"
#include "unit/tools/ctl-records.h"

using namespace quillon::test;

namespace {

/// The service finds that "lamp" needs version 2.0, and "horn" nothing.
class CtlRunningVersions : public CtlModules
{
protected:
    CtlRunningVersions()
    {
        writeFile(std::string(kStick) + "/lamp.bin", "");
        install("lamp", "version=1.5\n");
        install("horn", "version=1.0\n");
        record("estimate",
               kBegan + decided("lamp", R"("result":1,"offered":"2.0","seconds":30)") +
                   decided("horn", R"("result":0,"offered":"1.0","reason":"up-to-date")") + kEnded);
    }

    CtlResult check(std::vector<std::string> options = {})
    {
        return run("check", std::move(options));
    }

    /// Has the next update be over at once, and end well.
    /// @param after    settings of "lamp" from the start of the update on
    /// @param members  of the record of its end
    void script(const std::string& after, const std::string& members = R"("result":0)")
    {
        record("update", kBegan + finished("lamp", members + R"(,"offered":"2.0")") + kEnded);
        service.on(MQ_COMMAND_TIME, [this, estimates = 0](const MQData&) mutable {
            service.reply(++estimates == 1 ? MQ_RESULT_ACCEPTED : MQ_RESULT_REFUSED, 30);
        });
        service.on(MQ_COMMAND_START, [this, after](const MQData&) {
            install("lamp", after);
            service.on(MQ_COMMAND_PROGRESS,
                       [this](const MQData&) { service.reply(MQ_RESULT_DONE, 100); });
            service.reply(MQ_RESULT_ACCEPTED);
        });
    }

    CtlResult update(const std::string& after, const std::string& members = R"("result":0)",
                     std::vector<std::string> options = {})
    {
        script(after, members);
        return run("update", std::move(options));
    }

    CtlResult run(const std::string& verb, std::vector<std::string> options)
    {
        service.serve();
        options.insert(options.end(), {verb, kStick});
        return runCtl(options);
    }

    FakeService service;
};

TEST_F(CtlRunningVersions, AreToldByACheck)
{
    const CtlResult result = check();

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.err, "");
    expectText(result.out, like("*\nNAME  RUNNING  OFFERED  STATE\n"
                                "lamp  1.5      2.0      needs an update, about 30 s\n"
                                "horn  1.0      1.0      up to date\n*"));
}

TEST_F(CtlRunningVersions, OfBrokenModulesLackAndTheOthersAreTold)
{
    install("horn", "getActiveVersion.effect=exit\n");

    expectText(check().out,
               like("*\nlamp  1.5      2.0      needs an update, about 30 s\n"
                    "horn  -        1.0      up to date; it ended the program when it was asked "
                    "for its version\n*"));
}

TEST_F(CtlRunningVersions, OfAModuleThatHangsLackAfterTheTimeOut)
{
    install("horn", "getActiveVersion.effect=hang\n");

    const CtlResult result = check({"--json", "--timeout", "6"});

    EXPECT_EQ(result.exitCode, 0);
    expectText(result.out, like("*\"name\":\"lamp\",*\"running\":\"1.5\",*\"name\":\"horn\",*"
                                "\"problem\":\"hung\"*"));
}

TEST_F(CtlRunningVersions, OfModulesWithOneIdentifierComeWithThat)
{
    install("horn", "version=1.0\nempid=lampemp\n");

    expectText(check().out, like("*up to date; it has the package identifier of lamp\n*"));
}

TEST_F(CtlRunningVersions, LackWithoutAModuleDirectory)
{
    std::filesystem::remove_all("/usr/fwupdate/controls");

    const CtlResult result = check();

    EXPECT_EQ(result.exitCode, 0);
    expectText(result.out, like("*\nlamp  -        2.0      needs an update, about 30 s\n*"));
    EXPECT_EQ(result.err,
              "quillonctl: the running versions are not known: the module directory "
              "cannot be read: /usr/fwupdate/controls/\n");
}

TEST_F(CtlRunningVersions, AreToldBeforeAndAfterAnUpdate)
{
    const CtlResult result = update("version=2.0\n");

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.err, "");
    expectText(result.out, like("*\nNAME  BEFORE  AFTER  OFFERED  OUTCOME\n"
                                "lamp  1.5     2.0    2.0      updated in 12 s\n*"));
}

TEST_F(CtlRunningVersions, ThatAnUpdateHasNotChangedAreAWarning)
{
    const CtlResult result = update("version=1.5\n");

    EXPECT_EQ(result.exitCode, 0) << "the service says success";
    expectText(result.out, like("*\nlamp  1.5     1.5    2.0      updated in 12 s; it still runs "
                                "1.5, not 2.0\n*The update finished*"));
    expectText(result.err,
               like("quillonctl: warning: the module lamp answered that it was updated, but it "
                    "still runs 1.5, not 2.0; restart the device, *\"quillonctl modules list\"*"));
}

TEST_F(CtlRunningVersions, ThatAreAsOfferedAreNoWarning)
{
    install("lamp", "version=2.0\n");

    EXPECT_EQ(update("version=2.0\n").err, "") << "it was installed once more";
}

TEST_F(CtlRunningVersions, ThatAreNotKnownAreNoWarning)
{
    EXPECT_EQ(update("getActiveVersion.result=-1\n").err, "");
}

TEST_F(CtlRunningVersions, OfAFailedUpdateAreNoWarning)
{
    const CtlResult result = update("version=1.5\n", R"("result":5,"reason":"update-failed")");

    EXPECT_EQ(result.exitCode, 6);
    expectText(result.out, like("*\nlamp  1.5     1.5    2.0      failed: the module's own *"));
    expectNoText(result.err, like("*warning*"));
}

TEST_F(CtlRunningVersions, AreToldToProgramsAsWell)
{
    const CtlResult result = update("version=1.5\n", R"("result":0)", {"--json"});

    expectText(result.out,
               like("*{\"event\":\"looked\",*\"name\":\"lamp\",*\"running\":\"1.5\",*\n"
                    "*{\"event\":\"updated\",\"modules\":[{\"after\":\"1.5\",\"before\":\"1.5\",*"
                    "\"problem\":\"unchanged\",*\n"
                    "{\"event\":\"warning\",\"text\":\"the module lamp answered *\"}\n*"));
    expectText(result.err, like("quillonctl: warning: *"));
}

TEST_F(CtlRunningVersions, AreAskedForUntilAnInterruptThatSaysTheUpdateIsOver)
{
    script("getActiveVersion.effect=hang\n");
    service.serve();
    CtlProgram program({"--timeout", "3600", "update", kStick});
    ASSERT_TRUE(eventually([] {
        const std::vector<std::string> calls = callsOf("lamp");
        return std::count(calls.begin(), calls.end(), "getActiveVersion()") == 2;
    }));
    program.sendSignal(SIGINT);

    const CtlResult result = program.finish();

    EXPECT_EQ(result.exitCode, 130);
    expectText(result.err, like("*interrupted; the update had ended before, \"quillonctl history\" "
                                "tells how\n"));
}

TEST_F(CtlRunningVersions, AreNotAskedForWhileAControlLayerMayBeFlashing)
{
    const auto semaphore = [](unsigned int value) {
        sem_unlink("/SEM_UPDATE_CONTROL");
        return sem_open("/SEM_UPDATE_CONTROL", O_CREAT, 0600, value);
    };
    sem_t* const held = semaphore(0);
    ASSERT_NE(held, SEM_FAILED);

    const CtlResult result = check();

    EXPECT_EQ(result.exitCode, 0);
    expectText(result.out, like("*\nlamp  -        2.0      needs an update, about 30 s\n*"));
    expectText(result.err, like("quillonctl: the running versions are not known: another control "
                                "layer is updating: process " +
                                std::to_string(getpid()) + " (*)\n"));
    EXPECT_EQ(callsOf("lamp"), std::vector<std::string>());
    sem_close(held);
    sem_close(semaphore(1));
    expectText(runCtl({"check", kStick}).out, like("*\nlamp  1.5 *"));
}

TEST_F(CtlRunningVersions, AreAskedWithoutHandingTheClientsLockOn)
{
    install("horn", "version=1.0\ngetActiveVersion.effect=child-stays\n");
    service.on(MQ_COMMAND_START, [this](const MQData&) { service.holdStill(); });
    service.serve();
    CtlProgram program({"update", kStick});
    ASSERT_TRUE(service.waitFor(MQ_COMMAND_START));
    program.sendSignal(SIGKILL);
    program.finish();

    EXPECT_EQ(runCtl({"--timeout", "0.1", "progress"}).exitCode, 4)
        << "only the service is busy, though a process of the module is still there";
    writeFile("/tmp/quillon-test-go", "");
}

}  // namespace
