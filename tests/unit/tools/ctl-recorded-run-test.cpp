// What quillonctl tells of each module where the service keeps records.

#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <string>

#include "support/files.h"
#include "support/texts.h"
#include "unit/client/fake-service.h"
#include "unit/tools/ctl-program.h"
#include "unit/tools/ctl-records.h"

using namespace quillon::test;

namespace {

namespace fs = std::filesystem;

class CtlRecordedRun : public testing::Test
{
protected:
    CtlRecordedRun() { writeFile(std::string(kStick) + "/lamp.bin", ""); }

    void nothingNeeded() { service.answerEstimate(MQ_RESULT_REFUSED, 0); }

    CtlResult runWith(const std::vector<std::string>& arguments)
    {
        service.serve();
        return runCtl(arguments);
    }

    FakeService service;
};

TEST_F(CtlRecordedRun, OfACheckHasARowForEachModule)
{
    record("estimate", kBegan + decided("lamp", R"("result":1,"offered":"2.0","seconds":30)") +
                           decided("horn", R"("result":0,"offered":"1.0","reason":"up-to-date")") +
                           decided("tuner", R"("result":-1,"reason":"no-image")") +
                           decided("siren", R"("detail":"Permission denied","result":-1,)"
                                            R"("reason":"no-image")") +
                           decided("panel", R"("result":-1,"reason":"not-signed")") + kEnded);

    const CtlResult result = runWith({"check", kStick});

    EXPECT_EQ(result.exitCode, 0);
    expectText(
        result.out,
        like("Checking /tmp/stick\n"
             "NAME   RUNNING  OFFERED  STATE\n"
             "lamp   -        2.0      needs an update, about 30 s\n"
             "horn   -        1.0      up to date\n"
             "tuner  -        -        its image is missing\n"
             "siren  -        -        the service cannot open its image: Permission denied\n"
             "panel  -        -        its image is not signed, or with a key that the device does "
             "not trust\n"
             "The update takes about * s\n"));
}

TEST_F(CtlRecordedRun, IsReadThoughItsServiceWasKilledWhileItTookBlanksAway)
{
    record("estimate", kBegan + decided("lamp", R"("result":1,"offered":"2.0","seconds":30)") +
                           "   \n" + kEnded);
    expectText(runWith({"check", kStick}).out, like("*\nlamp  *needs an update*"));
}

TEST_F(CtlRecordedRun, ThatIsUpToDateIsASuccessOfAnUpdateAndNothingElseIs)
{
    nothingNeeded();
    service.serve();
    const std::string upToDate = decided("horn", R"("result":0,"reason":"up-to-date")");
    const std::string noImage = decided("tuner", R"("result":-1,"reason":"no-image")");
    const std::string unsafe = decided("panel", R"("result":-1,"reason":"not-signed")");

    for (const auto& [lines, code] : std::vector<std::pair<std::string, int>>{
             {upToDate + noImage, 0}, {upToDate + unsafe, 7}, {noImage, 7}, {"", 7}}) {
        record("estimate", kBegan + lines + kEnded);
        EXPECT_EQ(runCtl({"update", kStick}).exitCode, code) << lines;
        EXPECT_EQ(runCtl({"check", kStick}).exitCode, 7) << lines;
    }
    fs::remove_all("/run/quillon/run");
    EXPECT_EQ(runCtl({"update", kStick}).exitCode, 7) << "without a record";
}

TEST_F(CtlRecordedRun, OfAVersionThatIsNoTextTellsOfTheKey)
{
    nothingNeeded();
    record(
        "estimate",
        kBegan + decided("lamp", R"("result":-1,"offered":null,"reason":"check-failed")") + kEnded);

    expectText(runWith({"check", kStick}).out,
               like("*lamp  -        -        its image has another image key, or is damaged\n*"));
}

TEST_F(CtlRecordedRun, OfAnUpdateTellsHowEachModuleFared)
{
    service.answerAfterStart({{MQ_RESULT_DONE, 100}});
    record("update", kBegan + finished("lamp", R"("result":0,"offered":"2.0")") + kEnded);

    const CtlResult result = runWith({"update", kStick});

    EXPECT_EQ(result.exitCode, 0);
    expectText(result.out, like("*\nNAME  BEFORE  AFTER  OFFERED  OUTCOME\n"
                                "lamp  -       -      2.0      updated in 12 s\n*"));
}

TEST_F(CtlRecordedRun, OfAnUpdateNamesTheModuleThatIsBeingUpdated)
{
    service.answerAfterStart({{MQ_RESULT_RUNNING, 1}, {MQ_RESULT_DONE, 100}});
    record("update", kBegan + finished("lamp", R"("result":0)") +
                         "{\"event\":\"started\",\"clock\":1e9,\"module\":\"ho\\u001brn\"}\n");

    const CtlResult result = runWith({"update", kStick});

    expectText(result.out, like("*\nUpdating ho?rn\n*"));
}

TEST_F(CtlRecordedRun, OfAnUpdateThatFailedNamesTheModuleAndTheReason)
{
    service.answerAfterStart({{MQ_RESULT_FAILED, 10}});
    record("update", kBegan + finished("lamp", R"("result":0)") +
                         finished("horn", R"("result":5,"reason":"update-failed")") + kEnded);

    const CtlResult result = runWith({"update", kStick});

    EXPECT_EQ(result.exitCode, 6);
    expectText(result.out,
               like("*\nhorn  -       -      -        failed: the module's own code is 5\n*"));
    expectText(result.err,
               like("quillonctl: the update failed at the module horn: the module's own "
                    "code is 5; the update service's log (the service's standard error) says "
                    "more\n*"));
}

TEST_F(CtlRecordedRun, NamesTheModuleThatTheServiceDiedIn)
{
    service.on(MQ_COMMAND_TIME, [this](const MQData&) { service.holdStill(); });
    record("estimate",
           kBegan + std::string("{\"event\":\"checking\",\"clock\":1e9,\"module\":\"lamp\"}\n"));

    const CtlResult result = runWith({"--timeout", "0.1", "check", kStick});

    EXPECT_EQ(result.exitCode, 4);
    expectText(result.err, like("*; the service was at the module lamp\n"));
}

TEST_F(CtlRecordedRun, NamesTheModuleThatTheServiceIsHeldUpBy)
{
    service.on(MQ_COMMAND_PROGRESS, [this](const MQData&) { service.holdStill(); });
    record("estimate", R"({"event":"began","clock":1e9,"directory":"/somewhere/","pid":)" +
                           std::to_string(getpid()) +
                           "}\n{\"event\":\"checking\",\"clock\":1e9,\"module\":\"lamp\"}\n");

    service.serve();

    for (const std::vector<std::string>& verb :
         {std::vector<std::string>{"check", kStick}, std::vector<std::string>{"progress"}}) {
        std::vector<std::string> line = {"--timeout", "0.1"};
        line.insert(line.end(), verb.begin(), verb.end());
        const CtlResult result = runCtl(line);

        EXPECT_EQ(result.exitCode, 4) << verb.front();
        expectText(result.err, like("*; the service was at the module lamp\n"));
    }
}

TEST_F(CtlRecordedRun, OfTheStartTellsWhyNoImageIsLookedAt)
{
    const std::string began =
        R"({"event":"began","clock":1e9,"pid":)" + std::to_string(getpid()) + "}\n";
    const std::string loaded = R"({"event":"loaded","clock":1e9,"module":"lamp","result":0})"
                               "\n";
    const auto serving = [](const std::string& key) {
        return R"({"event":"serving","clock":1e9,"key":)" + key + "}\n";
    };
    const std::string told = "*\nNothing to update: ";
    nothingNeeded();
    service.serve();
    const auto tableOf = [](const std::string& start) {
        record("start", start);
        return runCtl({"check", kStick}).out;
    };

    expectText(tableOf(began + loaded + serving("false")),
               like(told + "there is no image key on the device; \"quillonctl doctor\" says *\n"));
    expectText(tableOf(began + serving("true")),
               like(told + "the service has loaded no module *\"quillonctl modules list\"*\n"));
    expectText(tableOf(began + loaded + serving("true")),
               like(told + "*the service's log (*) says why\n"));
    expectText(tableOf(began + loaded), like(told + "*the service's log (*) says why\n"));
}

TEST_F(CtlRecordedRun, OfSomebodyElseIsNotShown)
{
    service.serve();
    for (const char* began :
         {"{\"event\":\"began\",\"clock\":0.001,\"directory\":\"/tmp/stick/\"}\n",
          "{\"event\":\"began\",\"clock\":1e9,\"directory\":\"/tmp/stick2/\"}\n"}) {
        record("estimate", began + decided("lamp", R"("result":1,"seconds":30)") + kEnded);
        expectNoText(runCtl({"check", kStick}).out, like("*NAME*"));
    }
}

TEST_F(CtlRecordedRun, ThatWasGivenUpTurnsNoResultRound)
{
    nothingNeeded();
    record("estimate", kBegan + decided("horn", R"("result":0,"reason":"up-to-date")"));
    const CtlResult look = runWith({"update", kStick});
    EXPECT_EQ(look.exitCode, 7) << "a refusal may be missing";
    expectText(look.out, like("*the service's log (*) says why\n"));
}

TEST_F(CtlRecordedRun, ThatWasGivenUpFailsNoUpdate)
{
    service.answerAfterStart({{MQ_RESULT_DONE, 100}});
    record("update", kBegan + finished("lamp", R"("result":0)") +
                         "{\"event\":\"started\",\"clock\":1e9,\"module\":\"horn\"}\n");
    EXPECT_EQ(runWith({"update", kStick}).exitCode, 0);
}

TEST_F(CtlRecordedRun, ThatIsDamagedIsNotShown)
{
    for (const char* lines : {"[1]\n", "no JSON\n", "{\"event\":[]}\n", "\n"}) {
        record("estimate", kBegan + std::string(lines));
        FakeService another;
        another.serve();
        const CtlResult result = runCtl({"check", kStick});
        EXPECT_EQ(result.exitCode, 0) << lines;
        expectNoText(result.out, like("*NAME*"));
    }
}

TEST_F(CtlRecordedRun, WithoutTheEndOfItsLastLineIsReadUpToThere)
{
    service.answerAfterStart({{MQ_RESULT_DONE, 100}});
    record("update", kBegan + finished("lamp", R"("result":0)") + "{\"event\":\"fini");

    expectText(runWith({"update", kStick}).out,
               like("*\nlamp  -       -      -        updated in 12 s\n*"));
}

TEST_F(CtlRecordedRun, IsToldToProgramsAsWell)
{
    service.answerAfterStart({{MQ_RESULT_DONE, 100}});
    record("estimate", kBegan + decided("lamp", R"("result":1,"offered":"2.0","seconds":30)") +
                           decided("horn", R"("result":-1,"reason":"not-signed")") + kEnded);
    record("update",
           kBegan + finished("lamp", R"("result":0,"offered":"2.0","seconds":30)") + kEnded);

    const CtlResult result = runWith({"--json", "update", kStick});

    expectText(result.out,
               like("*{\"event\":\"looked\",\"modules\":[{\"expectedSeconds\":30,\"name\":\"lamp\","
                    "\"offered\":\"2.0\",\"result\":1,\"seconds\":12.0},*\"reason\":\"not-signed\"*"
                    "]}\n*{\"event\":\"updated\",\"modules\":[{*\"result\":0,*}]}\n*"));
}

}  // namespace
