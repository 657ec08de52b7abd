// Starting an update: a question for the progress right behind the command tells what came of it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quillon/client.h>

#include "unit/client/client-matchers.h"
#include "unit/client/fake-service.h"

using namespace quillon;
using namespace std::chrono_literals;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

/// Far longer than a test may last, but for replies that the service owes at once.
ClientOptions patient()
{
    ClientOptions options;
    options.replyTimeout = 1s;
    return options;
}

}  // namespace

class ClientStart : public testing::Test
{
protected:
    /// Connects and gets the query that every new connection begins with out of the way.
    void begin()
    {
        service.serve();
        ASSERT_THAT(client.connect(), Succeeded());
        ASSERT_THAT(client.progress().error, Succeeded());
    }

    FakeService service;
    Client client{patient()};
};

TEST_F(ClientStart, ThatTheServiceDropsIsAnErrorAtOnce)
{
    service.on(MQ_COMMAND_START, [](const MQData&) {});
    begin();

    EXPECT_THAT(client.start(),
                FailedWith(ErrorCode::kNoReply,
                           AllOf(HasSubstr("started nothing"), HasSubstr("no image key"),
                                 HasSubstr("taken out"), HasSubstr("put the stick back"))));
    EXPECT_EQ(client.estimate().value.seconds, 10) << "the client is still in step";
    EXPECT_THAT(service.commands(),
                ElementsAre(MQ_COMMAND_PROGRESS, MQ_COMMAND_START, MQ_COMMAND_PROGRESS,
                            MQ_COMMAND_PROGRESS, MQ_COMMAND_TIME));
}

TEST_F(ClientStart, IsNotTakenForDroppedByAProgressReplyFromBefore)
{
    service.on(MQ_COMMAND_START, [this](const MQData&) {
        service.reply(MQ_RESULT_NOT_RUNNING);
        service.reply(MQ_RESULT_ACCEPTED);
    });
    service.answerBeforeStart({{MQ_RESULT_NOT_RUNNING, 0},
                               {MQ_RESULT_RUNNING, 0},
                               {MQ_RESULT_RUNNING, 1},
                               {MQ_RESULT_DONE, 100}});
    begin();
    ASSERT_THAT(client.start(), Succeeded());

    EXPECT_EQ(client.progress().value.state, Progress::kDone);
}

TEST_F(ClientStart, WaitsForAServiceThatEstimatesFirst)
{
    service.on(MQ_COMMAND_START, [this](const MQData&) {
        std::this_thread::sleep_for(1500ms);  // longer than it waits for other replies
        service.reply(MQ_RESULT_ACCEPTED);
    });
    service.answerBeforeStart({{MQ_RESULT_NOT_RUNNING, 0}, {MQ_RESULT_RUNNING, 0}});
    begin();

    EXPECT_THAT(client.start(), Succeeded());
}

TEST_F(ClientStart, OfARunThatEndsAtOnceLosesNoOutcome)
{
    service.answerAfterStart({{MQ_RESULT_FAILED, 3}});
    begin();
    ASSERT_THAT(client.start(), Succeeded());

    EXPECT_EQ(client.progress().value.state, Progress::kFailed);
    EXPECT_EQ(client.progress().value.state, Progress::kIdle);
}

TEST_F(ClientStart, ThatIsRefusedForAnUntoldOutcomeKeepsThatOutcome)
{
    service.on(MQ_COMMAND_START, [this](const MQData&) { service.reply(MQ_RESULT_REFUSED); });
    service.answerBeforeStart({{MQ_RESULT_RUNNING, 60}, {MQ_RESULT_FAILED, 61}});
    begin();
    ASSERT_THAT(client.start(), FailedWith(ErrorCode::kRefused, testing::_));

    EXPECT_EQ(client.progress().value.state, Progress::kFailed);
}

TEST_F(ClientStart, IsNotFollowedByTheOutcomeOfAnEarlierRun)
{
    service.answerBeforeStart({{MQ_RESULT_DONE, 100}});
    service.answerAfterStart({{MQ_RESULT_RUNNING, 1}});
    service.serve();
    ASSERT_THAT(client.connect(), Succeeded());
    ASSERT_THAT(client.setDirectory("/mnt"), Succeeded());
    ASSERT_THAT(client.start(), Succeeded());

    const Result<Progress> progress = client.progress();
    EXPECT_EQ(progress.value.state, Progress::kRunning);
    EXPECT_EQ(progress.value.percent, 1);
}

TEST_F(ClientStart, WhoseReplySomebodyElseTookIsReported)
{
    service.on(MQ_COMMAND_START, [](const MQData&) {});
    service.answerBeforeStart(
        {{MQ_RESULT_NOT_RUNNING, 0}, {MQ_RESULT_RUNNING, 0}, {MQ_RESULT_RUNNING, 0}});
    begin();

    EXPECT_THAT(client.start(), FailedWith(ErrorCode::kBadReply, HasSubstr("somebody else")));
}

TEST_F(ClientStart, ThatIsNeverAnsweredSaysThatTheUpdateMayStillBegin)
{
    service.on(MQ_COMMAND_START, [this](const MQData&) { service.holdStill(); });
    service.serve();
    ClientOptions impatient;
    impatient.startTimeout = 300ms;
    Client hasty(impatient);
    ASSERT_THAT(hasty.connect(), Succeeded());

    EXPECT_THAT(hasty.start(), FailedWith(ErrorCode::kNoReply, AllOf(HasSubstr("within 300 ms"),
                                                                     HasSubstr("may still"))));
}
