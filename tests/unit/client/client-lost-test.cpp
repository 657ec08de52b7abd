// A service that ends without a word leaves its queues. The client waits for no reply from it.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <mqueue.h>
#include <quillon/client.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <fstream>

#include "unit/client/client-matchers.h"
#include "unit/client/fake-service.h"
#include "unit/client/other-process.h"

using namespace quillon;
using namespace std::chrono_literals;
using testing::AllOf;
using testing::HasSubstr;

namespace {

constexpr unsigned int kNobody = 65534;

/// Far longer than a test may last: who waits that long has not noticed the end.
ClientOptions patient()
{
    ClientOptions options;
    options.estimateTimeout = options.startTimeout = options.replyTimeout = 600s;
    return options;
}

ClientOptions impatient()
{
    ClientOptions options;
    options.estimateTimeout = options.startTimeout = options.replyTimeout = 1500ms;
    return options;
}

int beCalledAsTheService()
{
    return prctl(PR_SET_NAME, "quillon-service");
}

auto saysThatTheServiceEnded()
{
    return FailedWith(ErrorCode::kLost,
                      AllOf(HasSubstr("ended while the command was being worked on"),
                            HasSubstr("start it again")));
}

}  // namespace

/// The queues are the test's, which never answers an estimate; the process that the client finds is
/// another one, so that it can be killed.
class ClientLost : public testing::Test
{
protected:
    void SetUp() override
    {
#ifdef SYS_pidfd_open
        const long file = syscall(SYS_pidfd_open, getpid(), 0);
        if (file == -1) {
            GTEST_SKIP() << "no process can be watched here";
        }
        close(static_cast<int>(file));
#endif
        service.on(MQ_COMMAND_TIME, [](const MQData&) {});
        service.serve();
    }

    /// Calls `kill` once the service has got the command for an estimate.
    /// @return how the estimate ended
    Error estimateDuring(Client& client, const std::function<void()>& kill)
    {
        std::thread killer([&] {
            EXPECT_TRUE(service.waitFor(MQ_COMMAND_TIME));
            kill();
        });
        Error error = client.estimate().error;
        killer.join();
        return error;
    }

    FakeService service;
};

TEST_F(ClientLost, DuringAnEstimateItSaysSo)
{
    OtherProcess process(beCalledAsTheService);
    ASSERT_EQ(process.ready(), 0);
    Client client(patient());
    ASSERT_THAT(client.connect(), Succeeded());

    EXPECT_THAT(estimateDuring(client, [&] { process.kill(); }), saysThatTheServiceEnded());
}

TEST_F(ClientLost, ToAProcessThatNobodyHasWaitedForItSaysSo)
{
    OtherProcess process(beCalledAsTheService);
    ASSERT_EQ(process.ready(), 0);
    Client client(patient());
    ASSERT_THAT(client.connect(), Succeeded());

    EXPECT_THAT(estimateDuring(client, [&] { process.killAndLeaveZombie(); }),
                saysThatTheServiceEnded());
}

TEST_F(ClientLost, WhileTheServiceTakesNoCommandItSaysSo)
{
    service.on(MQ_COMMAND_TIME, [this](const MQData&) { service.holdStill(); });
    OtherProcess process(beCalledAsTheService);
    ASSERT_EQ(process.ready(), 0);
    Client client(patient());
    ASSERT_THAT(client.connect(), Succeeded());
    service.leaveCommand(MQ_COMMAND_TIME);
    ASSERT_TRUE(service.waitFor(MQ_COMMAND_TIME));
    service.leaveCommand(MQ_COMMAND_TIME);

    std::thread killer([&] { process.kill(); });
    EXPECT_THAT(client.stop(), saysThatTheServiceEnded());
    killer.join();
}

TEST_F(ClientLost, ItIsNoUseUntilItHasConnectedAgain)
{
    OtherProcess process(beCalledAsTheService);
    ASSERT_EQ(process.ready(), 0);
    Client client(patient());
    ASSERT_THAT(client.connect(), Succeeded());
    ASSERT_THAT(client.progress().error, Succeeded());
    process.kill();
    OtherProcess restarted(beCalledAsTheService);
    ASSERT_EQ(restarted.ready(), 0);

    EXPECT_THAT(client.setDirectory("/mnt"), saysThatTheServiceEnded());
    EXPECT_EQ(service.directory(), "");
    client.disconnect();
    ASSERT_THAT(client.connect(), Succeeded());
    EXPECT_THAT(client.setDirectory("/mnt"), Succeeded());
}

TEST_F(ClientLost, OnlyOnceItHasTakenTheLastReply)
{
    OtherProcess process(beCalledAsTheService);
    ASSERT_EQ(process.ready(), 0);
    service.on(MQ_COMMAND_PROGRESS, [&](const MQData&) {
        service.reply(MQ_RESULT_RUNNING, 37);
        process.killAndLeaveZombie();
    });
    Client client(patient());
    EXPECT_THAT(client.connect(), Succeeded());

    EXPECT_EQ(client.progress().value.percent, 37);
    service.end();  // waits for the handler, which uses the process
}

TEST_F(ClientLost, ByAnOrdinaryUserToo)
{
    OtherProcess process(beCalledAsTheService);
    ASSERT_EQ(process.ready(), 0);
    if (seteuid(kNobody) != 0) {
        GTEST_SKIP() << "cannot become another user here";
    }
    Client client(patient());
    ASSERT_THAT(client.connect(), Succeeded());

    EXPECT_THAT(estimateDuring(client, [&] { process.kill(); }), saysThatTheServiceEnded());
    EXPECT_EQ(seteuid(0), 0);
}

TEST_F(ClientLost, NotByTheEndOfAnotherUsersNamesake)
{
    OtherProcess namesake([] { return setuid(kNobody) + beCalledAsTheService(); });
    if (namesake.ready() != 0) {
        GTEST_SKIP() << "cannot become another user here";
    }
    Client client(impatient());
    ASSERT_THAT(client.connect(), Succeeded());

    EXPECT_THAT(estimateDuring(client, [&] { namesake.kill(); }),
                FailedWith(ErrorCode::kNoReply, testing::_));
}

TEST_F(ClientLost, NotByTheEndOfAServiceInAnotherDevice)
{
    OtherProcess otherDevice([] {
        if (unshare(CLONE_NEWPID) != 0) {
            return -1;
        }
        const pid_t first = fork();
        if (first == 0) {
            beCalledAsTheService();
            while (true) {
                pause();
            }
        }
        return static_cast<int>(first);
    });
    const pid_t first = otherDevice.ready();
    if (first <= 0) {
        GTEST_SKIP() << "cannot make another namespace here";
    }
    Client client(impatient());
    ASSERT_THAT(client.connect(), Succeeded());

    EXPECT_THAT(estimateDuring(client, [&] { ::kill(first, SIGKILL); }),
                FailedWith(ErrorCode::kNoReply, testing::_));
}

TEST_F(ClientLost, NotWhileAnotherProcessOfTheServiceLives)
{
    OtherProcess first(beCalledAsTheService);
    OtherProcess second(beCalledAsTheService);
    ASSERT_EQ(first.ready() + second.ready(), 0);
    Client client(impatient());
    ASSERT_THAT(client.connect(), Succeeded());

    EXPECT_THAT(estimateDuring(client, [&] { first.kill(); }),
                FailedWith(ErrorCode::kNoReply, testing::_));
}

/// Queues that only root and the members of one group may use.
class ClientLostByAGroup : public ClientLost
{
protected:
    static constexpr gid_t kGroup = 4321;
    static constexpr unsigned int kOtherMember = 1234;
    static constexpr const char* kLifeMarker = "/tmp/fw_update_ready_usb";

    void SetUp() override
    {
        ClientLost::SetUp();
        for (const char* name : {FW_MQ_SERVICE_QUEUE, FW_MQ_CONTROL_QUEUE}) {
            const mqd_t queue = mq_open(name, O_RDWR | O_CLOEXEC);
            const bool isGroups = fchown(queue, 0, kGroup) == 0 &&
                                  fchmod(queue, S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP) == 0;
            mq_close(queue);
            if (!isGroups) {
                GTEST_SKIP() << "cannot give anything to another user here";
            }
        }
        std::ofstream(kLifeMarker).close();
        ASSERT_EQ(chown(kLifeMarker, kNobody, kNobody), 0);
    }
    ~ClientLostByAGroup() override { unlink(kLifeMarker); }

    static int beCalledAsTheServiceOf(unsigned int user, gid_t group)
    {
        return setgroups(1, &group) + setgid(user) + setuid(user) + beCalledAsTheService();
    }

    void expectNothingLostBy(unsigned int user, gid_t group)
    {
        OtherProcess namesake([&] { return beCalledAsTheServiceOf(user, group); });
        ASSERT_EQ(namesake.ready(), 0);
        Client client(impatient());
        ASSERT_THAT(client.connect(), Succeeded());

        EXPECT_THAT(estimateDuring(client, [&] { namesake.kill(); }),
                    FailedWith(ErrorCode::kNoReply, testing::_));
    }
};

TEST_F(ClientLostByAGroup, ItSaysSo)
{
    OtherProcess process([] { return beCalledAsTheServiceOf(kNobody, kGroup); });
    ASSERT_EQ(process.ready(), 0);
    Client client(patient());
    ASSERT_THAT(client.connect(), Succeeded());

    EXPECT_THAT(estimateDuring(client, [&] { process.kill(); }), saysThatTheServiceEnded());
}

TEST_F(ClientLostByAGroup, NotByTheEndOfAnotherMembersNamesake)
{
    expectNothingLostBy(kOtherMember, kGroup);
}

TEST_F(ClientLostByAGroup, NotByTheEndOfANamesakeOfWhoHasMadeTheLifeMarker)
{
    ASSERT_EQ(chown(kLifeMarker, kOtherMember, kOtherMember), 0);

    expectNothingLostBy(kOtherMember, kOtherMember);
}

TEST_F(ClientLostByAGroup, NotByTheEndOfANamesakeWhereTheLifeMarkerIsALink)
{
    ASSERT_EQ(unlink(kLifeMarker), 0);
    ASSERT_EQ(symlink("/nowhere", kLifeMarker), 0);
    ASSERT_EQ(lchown(kLifeMarker, kOtherMember, kOtherMember), 0);

    expectNothingLostBy(kOtherMember, kGroup);
}

TEST_F(ClientLostByAGroup, IsToldWhoMayUseTheQueues)
{
    ASSERT_EQ(seteuid(kOtherMember), 0);
    Client client(impatient());

    EXPECT_THAT(client.connect(),
                FailedWith(ErrorCode::kSystem,
                           AllOf(HasSubstr("Permission denied"), HasSubstr("members of one group"),
                                 HasSubstr("quillon-service(8)"))));
    EXPECT_EQ(seteuid(0), 0);
}
