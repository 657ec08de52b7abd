// What each operation sends, and what it makes of the reply.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quillon/client.h>

#include <cstring>

#include "unit/client/client-matchers.h"
#include "unit/client/fake-service.h"

using namespace quillon;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

ClientOptions impatient()
{
    ClientOptions options;
    options.estimateTimeout = std::chrono::milliseconds(300);
    options.startTimeout = std::chrono::milliseconds(300);
    options.replyTimeout = std::chrono::milliseconds(300);
    return options;
}

}  // namespace

class ClientCommands : public testing::Test
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
    Client client{impatient()};
};

TEST_F(ClientCommands, DirectoryReachesTheServiceFilledUpWithSlashes)
{
    begin();
    EXPECT_THAT(client.setDirectory("/opt/media/USBDriveA"), Succeeded());

    EXPECT_EQ(service.directory(), "/opt/media/USBDriveA" + std::string(107, '/'));
}

TEST_F(ClientCommands, DirectoryThatEndsInASlashKeepsIt)
{
    begin();
    EXPECT_THAT(client.setDirectory("/opt/media/USBDriveA/"), Succeeded());

    EXPECT_EQ(service.directory(), "/opt/media/USBDriveA/" + std::string(106, '/'));
}

TEST_F(ClientCommands, ShorterDirectoryLeavesNothingOfALongerOne)
{
    begin();
    ASSERT_THAT(client.setDirectory("/opt/media/USBDriveA10/with/a/long/name"), Succeeded());
    ASSERT_THAT(client.setDirectory("/mnt"), Succeeded());

    EXPECT_EQ(service.directory(), "/mnt" + std::string(123, '/'));
}

TEST_F(ClientCommands, DirectoryMayHave127CharactersWithItsSlash)
{
    begin();
    const std::string longest = "/" + std::string(125, 'a');
    EXPECT_THAT(client.setDirectory(longest), Succeeded());
    EXPECT_EQ(service.directory(), longest + "/");

    EXPECT_THAT(client.setDirectory(longest + "/"), Succeeded());
    EXPECT_EQ(service.directory(), longest + "/");
}

TEST_F(ClientCommands, LongerDirectoryIsRefusedBeforeItIsSent)
{
    begin();
    const std::string tooLong = "/" + std::string(126, 'a');

    EXPECT_THAT(client.setDirectory(tooLong),
                FailedWith(ErrorCode::kBadArgument, AllOf(HasSubstr("128"), HasSubstr("127"))));
    EXPECT_THAT(client.setDirectory(tooLong + "/"),
                FailedWith(ErrorCode::kBadArgument, testing::_));
    EXPECT_THAT(service.commands(), ElementsAre(MQ_COMMAND_PROGRESS));
}

TEST_F(ClientCommands, DirectoryHasToBeAbsoluteAndPlainText)
{
    begin();
    EXPECT_THAT(client.setDirectory(""), FailedWith(ErrorCode::kBadArgument, testing::_));
    EXPECT_THAT(client.setDirectory("media"), FailedWith(ErrorCode::kBadArgument, testing::_));
    EXPECT_THAT(client.setDirectory(std::string("/a\0b", 4)),
                FailedWith(ErrorCode::kBadArgument, HasSubstr("NUL")));
    EXPECT_THAT(service.commands(), ElementsAre(MQ_COMMAND_PROGRESS));
}

TEST_F(ClientCommands, RecordsAreZeroWhereTheyHaveNothingToSay)
{
    begin();
    ASSERT_THAT(client.estimate().error, Succeeded());

    MQData expected{};
    expected.command = MQ_COMMAND_TIME;
    expected.kind = FW_MQ_KIND;
    EXPECT_EQ(std::memcmp(&service.received().back().record, &expected, sizeof expected), 0);
}

TEST_F(ClientCommands, DirectoryRecordIsZeroBehindTheDirectory)
{
    begin();
    ASSERT_THAT(client.setDirectory("/mnt"), Succeeded());

    const MQData sent = service.received().back().record;
    EXPECT_EQ(sent.kind, FW_MQ_KIND);
    EXPECT_EQ(std::string(sent.path + 127, FW_MQ_PATH_SIZE - 127),
              std::string(FW_MQ_PATH_SIZE - 127, '\0'));
}

TEST_F(ClientCommands, EstimateGivesTheSeconds)
{
    service.answerEstimate(MQ_RESULT_ACCEPTED, 42);
    begin();
    const Result<Estimate> estimate = client.estimate();

    EXPECT_THAT(estimate.error, Succeeded());
    EXPECT_TRUE(estimate.value.updateNeeded);
    EXPECT_EQ(estimate.value.seconds, 42);
}

TEST_F(ClientCommands, EstimateOfMinusOneMeansNothingToUpdate)
{
    service.answerEstimate(MQ_RESULT_REFUSED, 0);
    begin();
    const Result<Estimate> estimate = client.estimate();

    EXPECT_THAT(estimate.error, Succeeded());
    EXPECT_FALSE(estimate.value.updateNeeded);
    EXPECT_EQ(estimate.value.seconds, 0);
}

TEST_F(ClientCommands, EstimateIsNeverNegative)
{
    service.answerEstimate(MQ_RESULT_ACCEPTED, -5);
    begin();

    EXPECT_EQ(client.estimate().value.seconds, 0);
}

TEST_F(ClientCommands, StartIsAccepted)
{
    begin();

    EXPECT_THAT(client.start(), Succeeded());
    EXPECT_THAT(service.commands(),
                ElementsAre(MQ_COMMAND_PROGRESS, MQ_COMMAND_START, MQ_COMMAND_PROGRESS));
}

TEST_F(ClientCommands, StartIsRefusedDuringAnUpdate)
{
    service.on(MQ_COMMAND_START, [this](const MQData&) { service.reply(MQ_RESULT_REFUSED); });
    begin();

    EXPECT_THAT(client.start(), FailedWith(ErrorCode::kRefused, HasSubstr("already updating")));
}

TEST_F(ClientCommands, ProgressTellsEachStateOfARun)
{
    service.answerAfterStart({{MQ_RESULT_RUNNING, 0},
                              {MQ_RESULT_RUNNING, 57},
                              {MQ_RESULT_DONE, 100},
                              {MQ_RESULT_NOT_RUNNING, 0},
                              {MQ_RESULT_FAILED, 33}});
    begin();
    ASSERT_THAT(client.start(), Succeeded());

    std::vector<std::pair<int, int>> states;
    for (int i = 0; i < 5; ++i) {
        const Result<Progress> progress = client.progress();
        ASSERT_THAT(progress.error, Succeeded());
        states.emplace_back(progress.value.state, progress.value.percent);
    }
    using P = Progress;
    EXPECT_THAT(states, ElementsAre(std::pair(P::kRunning, 0), std::pair(P::kRunning, 57),
                                    std::pair(P::kDone, 100), std::pair(P::kIdle, 0),
                                    std::pair(P::kFailed, 33)));
}

TEST_F(ClientCommands, StopIsDeliveredAndNeedsNoReply)
{
    begin();

    EXPECT_THAT(client.stop(), Succeeded());
    EXPECT_TRUE(service.waitFor(MQ_COMMAND_STOP));
}

TEST_F(ClientCommands, StopToAServiceThatTakesNoCommandsIsReported)
{
    ASSERT_THAT(client.connect(), Succeeded());
    service.leaveCommand(MQ_COMMAND_TIME);

    EXPECT_THAT(client.stop(),
                FailedWith(ErrorCode::kNoReply, HasSubstr("does not take the command")));
}
