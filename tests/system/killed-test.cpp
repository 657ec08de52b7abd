#include <filesystem>
#include <random>
#include <set>
#include <thread>

#include "system/system-test.h"

namespace quillon::test {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

/// Everything that the service, its queues or its modules may leave lying about.
std::set<std::string> leftovers()
{
    std::set<std::string> found;
    for (const char* directory : {"/dev/mqueue", "/var/lib/quillon/examples", "/usr/fwupdate",
                                  "/opt/media", "/var/lib/quillon/secure-storage"}) {
        for (const fs::directory_entry& entry : fs::recursive_directory_iterator(directory)) {
            found.insert(entry.path());
        }
    }
    for (const fs::directory_entry& entry : fs::directory_iterator("/tmp")) {
        const std::string name = entry.path().filename();
        if (name.rfind("fw", 0) == 0 || name.rfind(".fw", 0) == 0) {
            found.insert(entry.path());
        }
    }
    return found;
}

class Killed : public SystemTest
{
protected:
    void setSpeed(long bytesPerSecond)
    {
        for (const std::string& name : allModules()) {
            setModule(name, bytesPerSecond, 5);
        }
    }

    void pauseUpTo(milliseconds longest)
    {
        const std::chrono::microseconds limit(longest);
        std::this_thread::sleep_for(limit * (random_() % 1000) / 1000);
    }

private:
    std::mt19937 random_{20};
};

TEST_F(Killed, AtRandomMomentsOfAnUpdateItComesBackAndTheNextUpdateSucceeds)
{
    constexpr int kRounds = 20;
    constexpr std::size_t kPayload = 30000;
    constexpr long kSlowly = 300000;  // a tenth of a second for each module
    std::set<std::string> afterTheFirstRound;

    for (int round = 1; round <= kRounds; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        const std::string version = std::to_string(round + 1) + ".0";
        putImagesForAll(version, kPayload);
        setSpeed(kSlowly);
        ASSERT_NO_FATAL_FAILURE(startDaemon());
        ASSERT_TRUE(channel->send(Channel::record(MQ_COMMAND_START)));
        pauseUpTo(milliseconds(400));
        daemon.kill();
        channel.reset();

        setSpeed(0);
        ASSERT_NO_FATAL_FAILURE(startDaemon());
        // What was flashed before the kill is not flashed again; maybe all of it was.
        const int result = update();
        EXPECT_TRUE(result == MQ_RESULT_DONE || result == MQ_RESULT_REFUSED) << result;
        ASSERT_NO_FATAL_FAILURE(expectAllUpdatedTo(version));
        channel.reset();
        daemon.kill();

        if (round == 1) {
            afterTheFirstRound = leftovers();
        }
    }
    EXPECT_EQ(leftovers(), afterTheFirstRound);
}

TEST_F(Killed, WithRecordsQueuedItAnswersThemWhenItComesBack)
{
    putImagesForAll("2.0");
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        ASSERT_NO_FATAL_FAILURE(startDaemon());
        ASSERT_TRUE(daemon.freeze());
        // One record may go straight to the stopped process, which waits in its receive call.
        for (int i = 0; i < FW_MQ_MAX_MESSAGES; ++i) {
            ASSERT_TRUE(channel->send(Channel::record(MQ_COMMAND_PROGRESS)));
        }
        const long queued = channel->waitingCommands();
        EXPECT_GE(queued, FW_MQ_MAX_MESSAGES - 1);
        daemon.kill();

        ASSERT_NO_FATAL_FAILURE(daemon.startAndWait());
        for (long i = 0; i < queued; ++i) {
            const auto reply = channel->receive();
            ASSERT_TRUE(reply) << i;
            EXPECT_EQ(reply->result, MQ_RESULT_NOT_RUNNING);
        }
        EXPECT_EQ(channel->waitingReplies(), 0);
        channel.reset();
        daemon.kill();
    }
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    EXPECT_EQ(update(), MQ_RESULT_DONE);
    expectAllUpdatedTo("2.0");
}

TEST_F(Killed, WithAStopQueuedItStopsWhenItComesBack)
{
    startDaemon();
    ASSERT_TRUE(daemon.freeze());
    ASSERT_TRUE(channel->send(Channel::record(MQ_COMMAND_PROGRESS)));
    ASSERT_TRUE(channel->send(Channel::record(MQ_COMMAND_STOP)));
    daemon.kill();

    ASSERT_NO_FATAL_FAILURE(daemon.startAndWait());
    EXPECT_TRUE(daemon.logs("firmware_control_task thread stop"));
    EXPECT_EQ(daemon.stop(), 0);
}

TEST_F(Killed, WhileItStartsItComesBack)
{
    for (int round = 0; round < 20; ++round) {
        daemon.start();
        pauseUpTo(milliseconds(30));
        daemon.kill();
    }
    putImagesForAll("2.0");
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    EXPECT_EQ(update(), MQ_RESULT_DONE);
    expectAllUpdatedTo("2.0");
}

}  // namespace
}  // namespace quillon::test
