// examples/client: the channel from plain C, beside a real service.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <mqueue.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "base/fd.h"
#include "support/files.h"
#include "support/process.h"
#include "system/system-test.h"

namespace quillon::test {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class ExampleClient : public SystemTest
{
protected:
    Result client(const std::string& directory = kStick)
    {
        channel.reset();  // the queues are the client's
        return runInShell(EXAMPLE_CLIENT " '" + directory + "' 2>&1");
    }
};

TEST_F(ExampleClient, BringsEveryModuleItsPayload)
{
    putImagesForAll("2.0");
    startDaemon();
    const Result result = client();
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, StartsWith("updating, about 15 s\n"));
    EXPECT_THAT(result.out, EndsWith("updated\n"));
    expectAllUpdatedTo("2.0");
}

TEST_F(ExampleClient, RenewsTheMarksSoThatTheNextStickNeedNotHoldEveryModule)
{
    putImagesForAll("2.0");
    startDaemon();
    ASSERT_EQ(client().status, 0);
    for (const std::string& name : allModules()) {
        std::filesystem::remove(imagePath(name));
    }
    putImage("tuner", "3.0", "newer");
    EXPECT_THAT(client().out, EndsWith("updated\n"));
    EXPECT_EQ(flashed("tuner"), "newer");
}

TEST_F(ExampleClient, ReportsNothingToUpdateAsSuccess)
{
    putImagesForAll("1.0");
    startDaemon();
    const Result result = client();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "nothing to update\n");
}

TEST_F(ExampleClient, SaysThatAnUpdateFailed)
{
    putImagesForAll("2.0");
    std::filesystem::remove_all("/var/lib/quillon/examples/panel");
    writeFile("/var/lib/quillon/examples/panel", "no directory: every flash fails");
    startDaemon();
    const Result result = client();
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, EndsWith("the update failed: the service's log tells why\n"));
}

TEST_F(ExampleClient, TakesNoReplyThatSomebodyElseHasLeftForItsOwn)
{
    putImagesForAll("1.0");
    startDaemon();
    for (int i = 0; i < FW_MQ_MAX_MESSAGES / 2; ++i) {
        channel->send(Channel::record(MQ_COMMAND_PROGRESS));
        channel->send(Channel::record(MQ_COMMAND_PATH));
    }
    EXPECT_EQ(client().out, "nothing to update\n");
}

TEST_F(ExampleClient, GivesUpBesideSomebodyWhoSendsRepliesThatCannotBeTheAnswer)
{
    startDaemon();
    ::kill(daemon.pid(), SIGSTOP);
    std::atomic<bool> isOver{false};
    std::thread forger([&] {
        const UniqueFd replies(::mq_open(FW_MQ_CONTROL_QUEUE, O_WRONLY | O_NONBLOCK | O_CLOEXEC));
        const MQData forged = Channel::record(MQ_COMMAND_REPLY);
        while (!isOver) {
            ::mq_send(replies.get(), reinterpret_cast<const char*>(&forged), sizeof forged, 0);
            ::usleep(100000);
        }
    });
    const Result result = client();
    isOver = true;
    forger.join();
    ::kill(daemon.pid(), SIGCONT);

    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, HasSubstr("no reply from the update service"));
}

TEST_F(ExampleClient, LeavesTheChannelToTheClientThatHoldsTheLock)
{
    startDaemon();
    const UniqueFd lock(open("/run/lock/quillon-client.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0666));
    ASSERT_EQ(flock(lock.get(), LOCK_EX | LOCK_NB), 0);
    const Result result = client();
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, HasSubstr("another client is connected"));
}

TEST_F(ExampleClient, OpensNoFileOfSomebodyElseToEverybody)
{
    startDaemon();
    writeFile("/run/lock/private", "");
    std::filesystem::permissions("/run/lock/private", std::filesystem::perms::owner_read);
    std::filesystem::create_hard_link("/run/lock/private", "/run/lock/quillon-client.lock");
    const Result result = client();
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, HasSubstr("somebody else's file stands at the clients' lock"));
    EXPECT_EQ(std::filesystem::status("/run/lock/private").permissions(),
              std::filesystem::perms::owner_read);
}

TEST_F(ExampleClient, SaysThatNoServiceRuns)
{
    const Result result = client();
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "client: the update service is not running\n");
}

}  // namespace
}  // namespace quillon::test
