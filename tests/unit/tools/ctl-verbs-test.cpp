// quillonctl as people and scripts meet it: the real program against a scripted service.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quillon/client.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <regex>

#include "support/texts.h"
#include "support/wait.h"
#include "unit/client/fake-service.h"
#include "unit/tools/ctl-program.h"

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace {

using quillon::test::eventually;
using quillon::test::expectNoText;
using quillon::test::expectText;
using quillon::test::like;

constexpr const char* kStick = "/tmp/stick";

std::string padded(std::string directory)
{
    directory.resize(127, '/');
    return directory;
}

/// @return answers of a run that is found running `count` times, one percent further each time
std::deque<FakeService::Answer> runOf(int count)
{
    std::deque<FakeService::Answer> answers;
    for (int percent = 0; percent < count; ++percent) {
        answers.push_back({MQ_RESULT_RUNNING, percent});
    }
    answers.push_back({MQ_RESULT_DONE, 100});
    return answers;
}

}  // namespace

class CtlVerbs : public testing::Test
{
protected:
    CtlVerbs()
    {
        mkdir(kStick, 0755);
        std::ofstream(std::string(kStick) + "/lamp.bin").close();
    }

    /// @return milliseconds between the progress queries of a run, without the one that belongs to
    ///         the start
    std::vector<std::chrono::milliseconds::rep> pollIntervals() const
    {
        std::vector<std::chrono::milliseconds::rep> intervals;
        const std::vector<FakeService::Received> received = service.received();
        for (std::size_t i = 2; i < received.size(); ++i) {
            if (received[i - 2].record.command != MQ_COMMAND_START &&
                received[i - 1].record.command == MQ_COMMAND_PROGRESS &&
                received[i].record.command == MQ_COMMAND_PROGRESS) {
                intervals.push_back(std::chrono::duration_cast<std::chrono::milliseconds>(
                                        received[i].time - received[i - 1].time)
                                        .count());
            }
        }
        return intervals;
    }

    FakeService service;
};

TEST(CtlWithoutService, ExitsWith3)
{
    const CtlResult result = runCtl({"progress"});

    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(result.out, "");
    expectText(result.err, like("quillonctl: the update service is not running*"));
}

TEST(CtlUsage, ErrorsAreOneLineAndExitWith2)
{
    const std::vector<std::vector<std::string>> wrong = {
        {},
        {"dance"},
        {"update"},
        {"update", "/tmp", "/tmp"},
        {"progress", "/tmp"},
        {"--nonsense", "progress"},
        {"--timeout", "soon", "progress"},
        {"--timeout", "0", "progress"},
        {"--timeout", "-1", "progress"},
        {"--timeout", "86401", "progress"},
        {"--timeout", "3s", "progress"},
        {"--timeout", "", "progress"},
        {"--timeout", "nan", "progress"},
        {"progress", "stop"},
    };
    for (const auto& arguments : wrong) {
        const CtlResult result = runCtl(arguments);
        EXPECT_EQ(result.exitCode, 2) << testing::PrintToString(arguments);
        EXPECT_EQ(result.out, "") << testing::PrintToString(arguments);
        EXPECT_THAT(result.err, testing::MatchesRegex("quillonctl: [^\n]+\n"));
    }
}

TEST(CtlUsage, OfAnUnknownWordAsksForTheNearestOne)
{
    const std::map<std::vector<std::string>, std::string> mistakes = {
        {{"chek", "/tmp"}, R"(unknown verb "chek"; did you mean "check"?)"},
        {{"modules", "lst"}, R"(unknown verb "lst"; did you mean "list"?)"},
        {{"nonsense"}, R"(unknown verb "nonsense")"},
        {{"n\33x"}, R"(unknown verb "n?x")"},
        {{""}, R"(unknown verb "")"},
        {{"progress", "--folow"}, R"(unknown option "--folow"; did you mean "--follow"?)"},
        {{"modules", "update", "--al"}, R"(unknown option "--al"; did you mean "--all"?)"},
        {{"progress", "stop"}, R"(unexpected argument "stop")"},
        {{"modules"}, "a verb is required"},
        {{}, "a verb is required"},
    };
    for (const auto& [arguments, text] : mistakes) {
        EXPECT_EQ(runCtl(arguments).err, "quillonctl: " + text + " (see quillonctl --help)\n");
    }
}

TEST(CtlUsage, IsToldToProgramsInJson)
{
    for (const std::vector<std::string>& wrong : std::vector<std::vector<std::string>>{
             {"--json", "chek"}, {"chek", "--json"}, {"--json", "--quiet", "progress"}}) {
        const CtlResult result = runCtl(wrong);
        EXPECT_EQ(result.exitCode, 2);
        EXPECT_EQ(result.err, "");
        EXPECT_THAT(result.out, testing::MatchesRegex(
                                    "[{]\"event\":\"error\",\"exitCode\":2,\"text\":\".+\"[}]\n"));
    }
}

TEST(CtlUsage, HelpAndVersionSucceed)
{
    EXPECT_EQ(runCtl({"--help"}).exitCode, 0);
    EXPECT_EQ(runCtl({"update", "--help"}).exitCode, 0);
    EXPECT_THAT(runCtl({"--version"}).out, testing::MatchesRegex("quillonctl [0-9.]+\n"));
}

TEST_F(CtlVerbs, UpdateOfADirectoryThatCannotBeUsedExitsWith2AndSendsNothing)
{
    std::ofstream("/tmp/file") << "x";
    const std::string tooLong = "/tmp/" + std::string(122, 'a');
    ASSERT_EQ(mkdir(tooLong.c_str(), 0755), 0);
    service.serve();

    EXPECT_EQ(runCtl({"update", "/tmp/nowhere"}).err,
              "quillonctl: cannot use the directory /tmp/nowhere: No such file or directory\n");
    EXPECT_EQ(runCtl({"update", "/tmp/nowhere"}).exitCode, 2);
    EXPECT_EQ(runCtl({"update", "/tmp/file"}).exitCode, 2);
    EXPECT_TRUE(service.commands().empty());

    EXPECT_EQ(runCtl({"update", tooLong}).exitCode, 2);
    EXPECT_THAT(service.commands(), Not(testing::Contains(MQ_COMMAND_PATH)));
}

TEST_F(CtlVerbs, UpdateSetsTheDirectoryEstimatesStartsAndFollows)
{
    service.answerEstimate(MQ_RESULT_ACCEPTED, 30);
    service.answerAfterStart({{MQ_RESULT_RUNNING, 0},
                              {MQ_RESULT_RUNNING, 0},
                              {MQ_RESULT_RUNNING, 37},
                              {MQ_RESULT_DONE, 100}});
    service.serve();

    const CtlResult result = runCtl({"update", kStick});

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_THAT(result.out, testing::MatchesRegex("Checking /tmp/stick\n"
                                                  "The update takes about 30 s\n"
                                                  "The update has started\n"
                                                  "0 % \\(about (29|30) s left\\)\n"
                                                  "37 % \\(about [12][0-9] s left\\)\n"
                                                  "The update finished after [0-9]+ s\n"
                                                  "Looking once more at the stick\n"));
    EXPECT_THAT(service.commands(),
                ElementsAre(MQ_COMMAND_PROGRESS, MQ_COMMAND_PATH, MQ_COMMAND_TIME, MQ_COMMAND_START,
                            MQ_COMMAND_PROGRESS, MQ_COMMAND_PROGRESS, MQ_COMMAND_PROGRESS,
                            MQ_COMMAND_PROGRESS, MQ_COMMAND_PROGRESS, MQ_COMMAND_TIME));
    EXPECT_EQ(service.directory(), padded(kStick));
}

TEST_F(CtlVerbs, UpdateTakesARelativeDirectory)
{
    service.answerAfterStart({{MQ_RESULT_DONE, 100}});
    service.serve();
    ASSERT_EQ(chdir("/tmp"), 0);

    EXPECT_EQ(runCtl({"update", "stick/../stick"}).exitCode, 0);
    EXPECT_EQ(service.directory(), padded(kStick));
}

TEST_F(CtlVerbs, UpdateReckonsTheTimeLeftFromItsOwnEstimateNotFromThePercentage)
{
    service.answerEstimate(MQ_RESULT_ACCEPTED, 2);
    service.answerAfterStart(runOf(4));
    service.serve();

    EXPECT_THAT(runCtl({"update", kStick}).out,
                AllOf(testing::ContainsRegex("\n0 % \\(about [12] s left\\)\n"),
                      HasSubstr("\n3 % (longer than expected)\n")));
}

TEST_F(CtlVerbs, UpdateAsksOnceASecondWithoutATerminal)
{
    service.answerAfterStart(runOf(2));
    service.serve();
    ASSERT_EQ(runCtl({"update", kStick}).exitCode, 0);

    EXPECT_THAT(pollIntervals(), ElementsAre(AllOf(testing::Ge(950), testing::Lt(3000)),
                                             AllOf(testing::Ge(950), testing::Lt(3000))));
}

TEST_F(CtlVerbs, UpdateAsksFourTimesASecondOnATerminalAndDrawsABar)
{
    service.answerEstimate(MQ_RESULT_ACCEPTED, 3000);
    service.answerAfterStart(runOf(4));
    service.serve();

    const CtlResult result = runCtlOnTerminal({"update", kStick}, 60);

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(pollIntervals().size(), 4U);
    EXPECT_THAT(pollIntervals(),
                AllOf(testing::Each(testing::Ge(200)), testing::Contains(testing::Lt(700))));
    expectText(result.out, like("*\r[................................"
                                "]   1 %, about 50 min left\x1b[K*"));
    expectText(result.out, like("*\x1b[K\r\x1b[KThe update finished after *"));
    expectNoText(result.out, like("*% (about*"));
}

TEST_F(CtlVerbs, UpdateWritesPlainLinesOnATerminalThatCannotRedraw)
{
    service.answerAfterStart(runOf(1));
    service.serve();

    const CtlResult result = runCtlOnTerminal({"update", kStick}, 60, "dumb");

    expectText(result.out, like("*0 % (about 10 s left)*"));
    expectNoText(result.out, like("*\x1b*"));
}

TEST_F(CtlVerbs, UpdateThatFailsTakesTheBarAwayAndExitsWith6)
{
    service.answerAfterStart({{MQ_RESULT_RUNNING, 10}, {MQ_RESULT_FAILED, 11}});
    service.serve();

    const CtlResult result = runCtlOnTerminal({"update", kStick}, 60);

    EXPECT_EQ(result.exitCode, 6);
    expectText(result.out, like("*\x1b[K\r\x1b[Kquillonctl: the update failed*"));
}

TEST_F(CtlVerbs, UpdateThatFailsExitsWith6)
{
    service.answerAfterStart({{MQ_RESULT_FAILED, 11}});
    service.serve();

    const CtlResult result = runCtl({"--quiet", "update", kStick});

    EXPECT_EQ(result.exitCode, 6);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err,
              "quillonctl: the update failed; the update service's log (the service's standard "
              "error) says why\n");
}

TEST_F(CtlVerbs, UpdateWithNothingToUpdateStartsNothingAndExitsWith7)
{
    service.answerEstimate(MQ_RESULT_REFUSED, 0);
    service.serve();

    const CtlResult result = runCtl({"update", kStick});

    EXPECT_EQ(result.exitCode, 7);
    expectText(result.out, like("*\nNothing to update: no image is newer, or none can be used; "
                                "the service's log (the service's standard error) says why\n*"));
    EXPECT_THAT(service.commands(), Not(testing::Contains(MQ_COMMAND_START)));
}

TEST_F(CtlVerbs, UpdateLeavesARunningUpdateAloneAndExitsWith8)
{
    service.answerBeforeStart({{MQ_RESULT_RUNNING, 12}});
    service.serve();

    const CtlResult result = runCtl({"update", kStick});

    EXPECT_EQ(result.exitCode, 8);
    EXPECT_EQ(result.err,
              "quillonctl: an update is running already, at 12 %; \"quillonctl progress --follow\" "
              "shows a running update\n");
    EXPECT_THAT(service.commands(), ElementsAre(MQ_COMMAND_PROGRESS));
}

TEST_F(CtlVerbs, UpdateRefusedByTheServiceExitsWith8)
{
    service.on(MQ_COMMAND_START, [this](const MQData&) { service.reply(MQ_RESULT_REFUSED); });
    service.serve();

    EXPECT_EQ(runCtl({"update", kStick}).exitCode, 8);
}

TEST_F(CtlVerbs, UpdateTellsHowAnEarlierOneEndedAndStartsAfresh)
{
    service.answerBeforeStart({{MQ_RESULT_FAILED, 61}});
    service.answerAfterStart({{MQ_RESULT_DONE, 100}});
    service.serve();

    const CtlResult result = runCtl({"update", kStick});

    EXPECT_EQ(result.exitCode, 0);
    expectText(result.out, like("An earlier update had failed\n"
                                "Looking once more at the stick\n"
                                "Checking *"));
}

TEST_F(CtlVerbs, UpdateWhoseStartIsDroppedSaysAtOnceWhatHelpsAndExitsWith4)
{
    service.on(MQ_COMMAND_START, [](const MQData&) {});
    service.serve();

    const CtlResult result = runCtl({"update", kStick});

    EXPECT_EQ(result.exitCode, 4);
    expectText(result.err, like("*started nothing*"));
    expectText(result.err, like("*no image key*"));
    expectText(result.err, like("*put the stick back*"));
}

TEST_F(CtlVerbs, UpdateWhoseStartGetsNoReplyExitsWith4)
{
    service.on(MQ_COMMAND_START, [this](const MQData&) { service.holdStill(); });
    service.serve();

    const CtlResult result = runCtl({"update", kStick, "--timeout", "0.3"});

    EXPECT_EQ(result.exitCode, 4);
    expectText(result.err, like("*within 300 ms*"));
    expectText(result.err, like("*may still start*"));
}

TEST_F(CtlVerbs, UpdateThatTheServiceForgetsExitsWith9)
{
    service.answerAfterStart({{MQ_RESULT_RUNNING, 1}});
    service.serve();

    const CtlResult result = runCtl({"update", kStick});

    EXPECT_EQ(result.exitCode, 9);
    expectText(result.err, like("*no longer knows of the update*"));
}

TEST_F(CtlVerbs, UpdateWhoseServiceEndsExitsWith9)
{
    service.answerAfterStart(runOf(1000));
    service.serve();
    CtlProgram program({"update", kStick});
    ASSERT_TRUE(service.waitFor(MQ_COMMAND_PROGRESS, 2));
    service.end();

    const CtlResult result = program.finish();

    EXPECT_EQ(result.exitCode, 9);
    expectText(result.err, like("*ended*"));
}

TEST_F(CtlVerbs, InterruptingAnUpdateSaysThatItGoesOnAndExitsWith130)
{
    service.answerAfterStart(runOf(1000));
    service.serve();
    CtlProgram program({"update", kStick});
    // One before the start, one that belongs to it, and the first of the run.
    ASSERT_TRUE(service.waitFor(MQ_COMMAND_PROGRESS, 3));
    program.sendSignal(SIGINT);

    const CtlResult result = program.finish();

    EXPECT_EQ(result.exitCode, 130);
    expectText(result.err, like("*quillonctl: interrupted; the update goes on*"));
    EXPECT_THAT(service.commands(), Not(testing::Contains(MQ_COMMAND_STOP)));
    EXPECT_EQ(runCtl({"progress"}).exitCode, 0) << "the channel is free again";
}

TEST_F(CtlVerbs, InterruptingAStartDoesNotClaimToKnow)
{
    service.on(MQ_COMMAND_START, [this](const MQData&) { service.holdStill(); });
    service.serve();
    CtlProgram program({"update", kStick});
    ASSERT_TRUE(service.waitFor(MQ_COMMAND_START));
    program.sendSignal(SIGINT);

    const CtlResult result = program.finish();

    EXPECT_EQ(result.exitCode, 130);
    expectText(result.err, like("*interrupted; if the update service has started the update*"));
}

TEST_F(CtlVerbs, UpdateAsJsonIsOneObjectForEachEvent)
{
    service.answerBeforeStart({{MQ_RESULT_DONE, 100}});
    service.answerEstimate(MQ_RESULT_ACCEPTED, 30);
    service.answerAfterStart({{MQ_RESULT_RUNNING, 5}, {MQ_RESULT_DONE, 100}});
    service.serve();

    const CtlResult result = runCtl({"--json", "update", kStick});

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.err, "");
    // How long things took depends on the machine.
    const std::regex durations("(secondsLeft\"|finished\",\"seconds\"):[0-9]+");
    const std::regex advice("\"text\":\"[^\n]+\"");
    EXPECT_EQ(
        std::regex_replace(std::regex_replace(result.out, durations, "$1:N"), advice, "\"text\":T"),
        "{\"event\":\"earlier-update\",\"percent\":100,\"state\":\"done\"}\n"
        "{\"event\":\"looking-again\"}\n"
        "{\"event\":\"looked-again\",\"marks\":\"unknown\",\"text\":T}\n"
        "{\"directory\":\"/tmp/stick\",\"event\":\"checking\"}\n"
        "{\"event\":\"estimate\",\"seconds\":30,\"updateNeeded\":true}\n"
        "{\"event\":\"started\"}\n"
        "{\"event\":\"progress\",\"percent\":5,\"secondsLeft\":N}\n"
        "{\"event\":\"finished\",\"seconds\":N}\n"
        "{\"event\":\"looking-again\"}\n"
        "{\"event\":\"looked-again\",\"marks\":\"renewed\"}\n");
}

TEST_F(CtlVerbs, ThatNobodyReadsLeaveTheServiceToOthers)
{
    service.serve();
    for (const std::vector<std::string>& verb : {std::vector<std::string>{"progress"},
                                                 {"--json", "estimate", kStick},
                                                 {"check", kStick}}) {
        const std::string read = runCtl(verb).out;
        const std::size_t commands = service.commands().size();
        UnreadCtl unread(verb);
        ASSERT_TRUE(eventually([&] { return service.commands().size() > commands; }));

        EXPECT_TRUE(eventually([] { return runCtl({"progress"}).exitCode != 5; })) << verb.back();

        EXPECT_TRUE(unread.isAlive());
        EXPECT_EQ(unread.read(), read);
    }
}

TEST_F(CtlVerbs, ErrorsAsJsonCarryTheExitCode)
{
    service.answerBeforeStart({{MQ_RESULT_RUNNING, 12}});
    service.serve();

    const CtlResult result = runCtl({"update", kStick, "--json"});

    EXPECT_EQ(result.exitCode, 8);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(
        result.out,
        "{\"event\":\"error\",\"exitCode\":8,"
        "\"text\":\"an update is running already, at 12 %; \\\"quillonctl progress --follow\\\" "
        "shows a running update\"}\n");
}

TEST_F(CtlVerbs, JsonOnATerminalHasNoBar)
{
    service.answerAfterStart(runOf(1));
    service.serve();

    EXPECT_THAT(runCtlOnTerminal({"--json", "update", kStick}, 60).out,
                AllOf(HasSubstr("{\"event\":\"progress\""), Not(HasSubstr("\x1b"))));
}

TEST_F(CtlVerbs, QuietUpdateSaysNothing)
{
    service.answerBeforeStart({{MQ_RESULT_FAILED, 0}});
    service.answerAfterStart(runOf(1));
    service.serve();

    const CtlResult result = runCtlOnTerminal({"update", kStick, "--quiet"}, 60);

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.out, "");
}

TEST_F(CtlVerbs, EstimateTellsTheTimeAndStartsNothing)
{
    service.answerEstimate(MQ_RESULT_ACCEPTED, 75);
    service.serve();

    const CtlResult result = runCtl({"estimate", kStick});

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.out, "Checking /tmp/stick\nThe update takes about 75 s\n");
    EXPECT_THAT(service.commands(),
                ElementsAre(MQ_COMMAND_PROGRESS, MQ_COMMAND_PATH, MQ_COMMAND_TIME));
}

TEST_F(CtlVerbs, EstimateWithNothingToUpdateExitsWith7)
{
    service.answerEstimate(MQ_RESULT_REFUSED, 0);
    service.serve();

    const CtlResult result = runCtl({"estimate", kStick, "--json"});

    EXPECT_EQ(result.exitCode, 7);
    expectText(result.out,
               like("*{\"event\":\"estimate\",\"seconds\":0,\"updateNeeded\":false}\n"));
}

TEST_F(CtlVerbs, EstimateDoesNotDisturbARunningUpdate)
{
    service.answerBeforeStart({{MQ_RESULT_RUNNING, 12}});
    service.serve();

    EXPECT_EQ(runCtl({"estimate", kStick}).exitCode, 8);
    EXPECT_THAT(service.commands(), ElementsAre(MQ_COMMAND_PROGRESS));
}

TEST_F(CtlVerbs, EstimateThatTakesTooLongExitsWith4)
{
    service.on(MQ_COMMAND_TIME, [](const MQData&) {});
    service.serve();

    const CtlResult result = runCtl({"--timeout", "0.3", "estimate", kStick});

    EXPECT_EQ(result.exitCode, 4);
    EXPECT_EQ(
        result.err,
        "quillonctl: no reply from the update service within 300 ms; \"quillonctl doctor\" looks "
        "for what may keep it busy; the service's log: the service's standard error\n");
}

TEST_F(CtlVerbs, ProgressTellsEachState)
{
    service.answerBeforeStart(
        {{MQ_RESULT_RUNNING, 37}, {MQ_RESULT_DONE, 100}, {MQ_RESULT_FAILED, 20}});
    service.serve();

    const CtlResult running = runCtl({"progress"});
    const CtlResult done = runCtl({"progress"});
    const CtlResult failed = runCtl({"progress"});
    const CtlResult idle = runCtl({"progress"});

    EXPECT_EQ(running.out, "The update is running, 37 %\n");
    EXPECT_EQ(done.out, "The update finished\nLooking once more at the stick\n");
    EXPECT_EQ(failed.out, "The update failed\nLooking once more at the stick\n");
    EXPECT_EQ(idle.out, "No update is running\n");
    EXPECT_EQ(running.exitCode, 0);
    EXPECT_EQ(done.exitCode, 0);
    EXPECT_EQ(failed.exitCode, 6);
    EXPECT_EQ(idle.exitCode, 0);
}

TEST_F(CtlVerbs, ProgressAsJsonNamesTheState)
{
    service.answerBeforeStart({{MQ_RESULT_RUNNING, 37}});
    service.serve();

    EXPECT_EQ(runCtl({"progress", "--json"}).out,
              "{\"event\":\"state\",\"percent\":37,\"state\":\"running\"}\n");
    EXPECT_EQ(runCtl({"progress", "--json"}).out,
              "{\"event\":\"state\",\"percent\":0,\"state\":\"idle\"}\n");
}

TEST_F(CtlVerbs, StopIsSent)
{
    service.serve();

    const CtlResult result = runCtl({"stop"});

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.out, "The update service was asked to take no more commands\n");
    EXPECT_TRUE(service.waitFor(MQ_COMMAND_STOP));
}

TEST_F(CtlVerbs, BusyChannelExitsWith5AndNamesTheHolder)
{
    service.serve();
    quillon::Client holder;
    ASSERT_FALSE(holder.connect());

    const CtlResult result = runCtl({"progress"});

    EXPECT_EQ(result.exitCode, 5);
    expectText(result.err, like("*(process " + std::to_string(getpid()) + ")*"));
}
