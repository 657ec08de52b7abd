// Replies that are old, late, missing or wrong.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quillon/client.h>
#include <signal.h>
#include <sys/time.h>

#include "unit/client/client-matchers.h"
#include "unit/client/fake-service.h"

using namespace quillon;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

ClientOptions options()
{
    ClientOptions options;
    options.estimateTimeout = 200ms;
    options.startTimeout = 200ms;
    options.replyTimeout = 1000ms;
    return options;
}

}  // namespace

class ClientReplies : public testing::Test
{
protected:
    FakeService service;
    Client client{options()};
};

TEST_F(ClientReplies, ThatEarlierClientsLeftAreThrownAway)
{
    service.reply(MQ_RESULT_RUNNING, 11);
    service.reply(MQ_RESULT_ACCEPTED, 99);
    service.serve();
    ASSERT_THAT(client.connect(), Succeeded());

    EXPECT_EQ(client.progress().value.state, Progress::kIdle);
    EXPECT_EQ(client.estimate().value.seconds, 10);
}

TEST_F(ClientReplies, ThatCameBetweenTwoCommandsAreThrownAway)
{
    service.serve();
    ASSERT_THAT(client.connect(), Succeeded());
    ASSERT_THAT(client.estimate().error, Succeeded());
    service.reply(MQ_RESULT_ACCEPTED, 99);

    EXPECT_EQ(client.estimate().value.seconds, 10);
}

TEST_F(ClientReplies, TenUnreadOnesHoldUpTheServiceOnlyUntilTheNextCommand)
{
    for (int i = 0; i < FW_MQ_MAX_MESSAGES; ++i) {
        service.reply(MQ_RESULT_ACCEPTED, 99);
    }
    service.leaveCommand(MQ_COMMAND_TIME);
    service.leaveCommand(MQ_COMMAND_TIME);
    service.serve();
    ASSERT_TRUE(service.waitFor(MQ_COMMAND_TIME));
    ASSERT_EQ(service.unreadReplies(), FW_MQ_MAX_MESSAGES);
    ASSERT_THAT(client.connect(), Succeeded());

    EXPECT_THAT(client.setDirectory("/mnt"), Succeeded());
    EXPECT_EQ(service.directory().substr(0, 5), "/mnt/");
}

TEST_F(ClientReplies, ToCommandsThatAKilledClientLeftAreNotTakenForOurs)
{
    // The service is still at the first one when we connect.
    service.on(MQ_COMMAND_TIME, [this, first = true](const MQData&) mutable {
        std::this_thread::sleep_for(first ? 150ms : 0ms);
        service.reply(MQ_RESULT_ACCEPTED, first ? 99 : 7);
        first = false;
    });
    service.leaveCommand(MQ_COMMAND_TIME);
    service.leaveCommand(MQ_COMMAND_PROGRESS);
    service.serve();
    ASSERT_TRUE(service.waitFor(MQ_COMMAND_TIME));
    ASSERT_THAT(client.connect(), Succeeded());

    EXPECT_EQ(client.estimate().value.seconds, 7);
}

TEST_F(ClientReplies, ThatComeWhileTheServiceCatchesUpAreThrownAway)
{
    service.on(MQ_COMMAND_TIME, [this](const MQData&) {
        std::this_thread::sleep_for(150ms);
        service.reply(MQ_RESULT_ACCEPTED, 99);
    });
    service.answerBeforeStart({{MQ_RESULT_RUNNING, 1}});
    service.leaveCommand(MQ_COMMAND_TIME);
    service.leaveCommand(MQ_COMMAND_PROGRESS);
    service.leaveCommand(MQ_COMMAND_TIME);
    service.serve();
    ASSERT_THAT(client.connect(), Succeeded());

    EXPECT_EQ(client.progress().value.state, Progress::kIdle);
}

TEST_F(ClientReplies, StillOwedToAKilledClientAreNotTakenForProgress)
{
    service.on(MQ_COMMAND_TIME, [this](const MQData&) {
        std::this_thread::sleep_for(150ms);
        service.reply(MQ_RESULT_ACCEPTED, 99);
    });
    service.answerBeforeStart({{MQ_RESULT_RUNNING, 37}});
    service.leaveCommand(MQ_COMMAND_TIME);
    service.serve();
    ASSERT_TRUE(service.waitFor(MQ_COMMAND_TIME));
    ASSERT_THAT(client.connect(), Succeeded());

    EXPECT_EQ(client.progress().value.percent, 37);
}

TEST_F(ClientReplies, ToAProgressQueryAreNotTakenForAnEstimate)
{
    service.on(MQ_COMMAND_TIME, [this](const MQData&) {
        for (const int late :
             {MQ_RESULT_RUNNING, MQ_RESULT_DONE, MQ_RESULT_FAILED, MQ_RESULT_NOT_RUNNING}) {
            service.reply(late, 99);
        }
        service.reply(MQ_RESULT_ACCEPTED, 7);
    });
    service.serve();
    ASSERT_THAT(client.connect(), Succeeded());

    EXPECT_EQ(client.estimate().value.seconds, 7);
}

TEST_F(ClientReplies, ThatComeLateAreNotTakenForTheAnswerToTheNextCommand)
{
    service.on(MQ_COMMAND_TIME, [this, first = true](const MQData&) mutable {
        std::this_thread::sleep_for(first ? 400ms : 0ms);
        service.reply(MQ_RESULT_ACCEPTED, first ? 99 : 7);
        first = false;
    });
    service.on(MQ_COMMAND_PATH, [](const MQData&) {});
    service.serve();
    ASSERT_THAT(client.connect(), Succeeded());
    ASSERT_THAT(client.estimate().error, FailedWith(ErrorCode::kNoReply, HasSubstr("200 ms")));

    EXPECT_EQ(client.estimate().value.seconds, 7);
    EXPECT_THAT(client.setDirectory("/mnt"), FailedWith(ErrorCode::kNoReply, HasSubstr("1 s")));
}

TEST_F(ClientReplies, ThatAreMissingAreReportedInTime)
{
    service.on(MQ_COMMAND_PROGRESS, [](const MQData&) {});
    service.serve();
    ASSERT_THAT(client.connect(), Succeeded());
    const auto before = std::chrono::steady_clock::now();

    EXPECT_THAT(client.progress().error,
                FailedWith(ErrorCode::kNoReply,
                           testing::StrEq("no reply from the update service within 1 s")));
    EXPECT_GE(std::chrono::steady_clock::now() - before, 1000ms);
}

TEST_F(ClientReplies, OfAnotherSizeArePassedOver)
{
    service.on(MQ_COMMAND_PROGRESS, [this](const MQData&) {
        service.replyRaw("short", 5);
        service.replyRaw("", 0);
        service.reply(MQ_RESULT_RUNNING, 5);
    });
    service.serve();
    ASSERT_THAT(client.connect(), Succeeded());

    EXPECT_EQ(client.progress().value.percent, 5);
}

TEST_F(ClientReplies, WithAnotherCommandFieldArePassedOver)
{
    service.on(MQ_COMMAND_PROGRESS, [this](const MQData& request) {
        MQData echo = request;
        echo.result = MQ_RESULT_DONE;
        service.replyRaw(&echo, sizeof echo);
        service.reply(MQ_RESULT_RUNNING, 5);
    });
    service.serve();
    ASSERT_THAT(client.connect(), Succeeded());

    EXPECT_EQ(client.progress().value.state, Progress::kRunning);
}

TEST_F(ClientReplies, ThatAreAllMalformedAreReportedAsThat)
{
    service.on(MQ_COMMAND_PROGRESS, [this](const MQData& request) {
        service.replyRaw("short", 5);
        service.replyRaw(&request, sizeof request);
    });
    service.serve();
    ASSERT_THAT(client.connect(), Succeeded());

    EXPECT_THAT(client.progress().error,
                FailedWith(ErrorCode::kBadReply, HasSubstr("2 malformed replies")));
}

TEST_F(ClientReplies, SurviveSignals)
{
    service.on(MQ_COMMAND_PROGRESS, [this](const MQData&) {
        std::this_thread::sleep_for(300ms);
        service.reply(MQ_RESULT_RUNNING, 5);
    });
    service.serve();
    ASSERT_THAT(client.connect(), Succeeded());
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, nullptr);
    itimerval often{{0, 5000}, {0, 5000}};
    setitimer(ITIMER_REAL, &often, nullptr);

    EXPECT_EQ(client.progress().value.percent, 5);

    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);
}

TEST_F(ClientReplies, AreNotAwaitedFromAServiceThatHasEnded)
{
    ClientOptions patient;
    patient.replyTimeout = 60s;
    Client waiting(patient);
    service.serve();
    ASSERT_THAT(waiting.connect(), Succeeded());
    ASSERT_THAT(waiting.progress().error, Succeeded());
    service.end();
    const auto before = std::chrono::steady_clock::now();

    EXPECT_THAT(waiting.progress().error, FailedWith(ErrorCode::kLost, HasSubstr("ended")));
    EXPECT_LT(std::chrono::steady_clock::now() - before, 20s);
}

TEST_F(ClientReplies, ToTheClientsOwnQueryLoseNoOutcome)
{
    service.answerBeforeStart({{MQ_RESULT_FAILED, 61}});
    service.serve();
    ASSERT_THAT(client.connect(), Succeeded());
    ASSERT_THAT(client.setDirectory("/mnt"), Succeeded());
    ASSERT_THAT(service.commands(), ElementsAre(MQ_COMMAND_PROGRESS, MQ_COMMAND_PATH));

    EXPECT_EQ(client.progress().value.state, Progress::kFailed);
    EXPECT_EQ(client.progress().value.state, Progress::kIdle);
}
