// After an update quillonctl has the service look at the stick once more, so that no module stays
// marked as needing an update.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "support/texts.h"
#include "unit/client/fake-service.h"
#include "unit/tools/ctl-program.h"

using testing::ElementsAre;
using testing::Not;

namespace {

using quillon::test::expectText;
using quillon::test::like;

constexpr const char* kStick = "/tmp/stick";
constexpr const char* kImage = "/tmp/stick/lamp.bin";

}  // namespace

class CtlSecondLook : public testing::Test
{
protected:
    CtlSecondLook()
    {
        mkdir(kStick, 0755);
        std::ofstream(kImage).close();
        service.answerAfterStart({{MQ_RESULT_DONE, 100}});
    }

    FakeService service;
};

TEST_F(CtlSecondLook, ThatFindsNothingLeftSaysNoMore)
{
    service.serve();
    const CtlResult result = runCtl({"update", kStick});

    EXPECT_EQ(result.exitCode, 0);
    expectText(result.out, like("*\nLooking once more at the stick\n"));
    EXPECT_EQ(result.err, "");
}

TEST_F(CtlSecondLook, ThatFindsTheModuleStillInNeedSaysWhatHelps)
{
    service.answerEstimateAfterRun(MQ_RESULT_ACCEPTED, 10);
    service.serve();
    const CtlResult result = runCtl({"update", kStick});

    EXPECT_EQ(result.exitCode, 0);
    expectText(result.err, like("*still needs an update*"));
    expectText(result.err, like("*run \"quillonctl update /tmp/stick\"*"));
    expectText(result.err, like("*restart the update service*"));
}

TEST_F(CtlSecondLook, AtAStickThatIsGoneSaysWhatHelps)
{
    service.on(MQ_COMMAND_START, [this](const MQData&) {
        unlink(kImage);
        service.reply(MQ_RESULT_ACCEPTED);
    });
    service.answerBeforeStart({{MQ_RESULT_NOT_RUNNING, 0}, {MQ_RESULT_FAILED, 10}});
    service.serve();
    const CtlResult result = runCtl({"update", kStick});

    EXPECT_EQ(result.exitCode, 6);
    expectText(result.err, like("*the stick was taken out*"));
    expectText(result.err, like("*put it back and run \"quillonctl estimate /tmp/stick*"));
    expectText(result.err, like("*restart the update service*"));
}

TEST_F(CtlSecondLook, AtAStickOfVeryManyFilesDoesNotTellWhetherItWasTakenOut)
{
    for (int i = 0; i < 10000; ++i) {
        std::ofstream(std::string(kStick) + "/" + std::to_string(i) + ".bin").close();
    }
    service.serve();
    const CtlResult result = runCtl({"update", kStick});

    EXPECT_EQ(result.exitCode, 0);
    expectText(result.err, like("*if the update's stick had been taken out already, put it back*"));
}

TEST_F(CtlSecondLook, ThatFailsLeavesTheResultOfTheUpdateAlone)
{
    service.on(MQ_COMMAND_TIME, [this, first = true](const MQData&) mutable {
        if (first) {
            service.reply(MQ_RESULT_ACCEPTED, 10);
        }
        first = false;
    });
    service.serve();
    const CtlResult result = runCtl({"--timeout", "0.5", "update", kStick});

    EXPECT_EQ(result.exitCode, 0);
    expectText(result.err, like("*cannot look once more at the stick: no reply*"));
    expectText(result.err, like("*run \"quillonctl estimate /tmp/stick\"*"));
}

TEST_F(CtlSecondLook, IsToldAsJson)
{
    service.answerEstimateAfterRun(MQ_RESULT_ACCEPTED, 10);
    service.serve();

    EXPECT_THAT(runCtl({"--json", "update", kStick}).out,
                testing::ContainsRegex("\n\\{\"event\":\"looking-again\"\\}\n"
                                       "\\{\"event\":\"looked-again\",\"marks\":\"still-needed\","
                                       "\"text\":\"a module still needs [^\n]+\"\\}\n$"));
}

TEST_F(CtlSecondLook, IsNotToldQuietly)
{
    service.answerEstimateAfterRun(MQ_RESULT_ACCEPTED, 10);
    service.serve();
    const CtlResult result = runCtl({"--quiet", "update", kStick});

    EXPECT_EQ(result.out + result.err, "");
}

TEST_F(CtlSecondLook, FollowsTheEndThatTheVerbProgressIsTold)
{
    service.answerBeforeStart({{MQ_RESULT_FAILED, 20}});
    service.serve();
    const CtlResult result = runCtl({"progress"});

    EXPECT_EQ(result.exitCode, 6);
    EXPECT_EQ(result.out, "The update failed\nLooking once more at the stick\n");
    expectText(result.err, like("*had been taken out already*"));
    EXPECT_THAT(service.commands(), ElementsAre(MQ_COMMAND_PROGRESS, MQ_COMMAND_TIME));
}

TEST_F(CtlSecondLook, AfterAnEarlierUpdateDoesNotSendAwayFromTheNextOne)
{
    service.answerBeforeStart({{MQ_RESULT_FAILED, 20}});
    service.answerEstimateAfterRun(MQ_RESULT_ACCEPTED, 10);
    service.serve();

    expectText(runCtl({"estimate", kStick}).err, like("*; update from it next, or restart*"));
}

TEST_F(CtlSecondLook, DoesNotDisturbAnUpdateThatRuns)
{
    service.answerBeforeStart({{MQ_RESULT_RUNNING, 20}});
    service.serve();
    runCtl({"progress"});

    EXPECT_THAT(service.commands(), Not(testing::Contains(MQ_COMMAND_TIME)));
}

TEST_F(CtlSecondLook, AfterAnEarlierUpdateComesBeforeTheDirectoryChanges)
{
    service.answerBeforeStart({{MQ_RESULT_DONE, 100}});
    service.serve();
    const CtlResult result = runCtl({"estimate", kStick});

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(service.commands(), ElementsAre(MQ_COMMAND_PROGRESS, MQ_COMMAND_TIME,
                                                MQ_COMMAND_PATH, MQ_COMMAND_TIME));
}

TEST_F(CtlSecondLook, CanBeInterrupted)
{
    service.answerBeforeStart({{MQ_RESULT_DONE, 100}});
    service.on(MQ_COMMAND_TIME, [](const MQData&) {});
    service.serve();
    CtlProgram program({"progress"});
    ASSERT_TRUE(service.waitFor(MQ_COMMAND_TIME));
    program.sendSignal(SIGINT);
    const CtlResult result = program.finish();

    EXPECT_EQ(result.exitCode, 130);
    expectText(result.err, like("*interrupted; the update had ended before*"));
}
