// Getting hold of the service: its queues, and the lock that keeps clients apart.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quillon/client.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "client/client-lock.h"
#include "unit/client/client-matchers.h"
#include "unit/client/fake-service.h"
#include "unit/client/other-process.h"

using namespace quillon;
using testing::HasSubstr;

namespace {

constexpr int kNobody = 65534;

ClientOptions impatient()
{
    ClientOptions options;
    options.lockTimeout = std::chrono::milliseconds(50);
    options.replyTimeout = std::chrono::milliseconds(500);
    return options;
}

int connectHere()
{
    static Client client(impatient());
    return static_cast<int>(client.connect().code);
}

}  // namespace

class ClientConnect : public testing::Test
{
protected:
    FakeService service;
    Client client{impatient()};
};

TEST(ClientConnectWithoutService, SaysThatTheServiceIsNotRunning)
{
    Client client(impatient());

    EXPECT_THAT(client.connect(), FailedWith(ErrorCode::kNoService, HasSubstr("not running")));
    EXPECT_THAT(client.progress().error, FailedWith(ErrorCode::kNotConnected, testing::_));
}

TEST(ClientConnectWithoutService, DoesNotKeepTheLock)
{
    Client client(impatient());
    ASSERT_TRUE(client.connect());

    ClientLock lock;
    EXPECT_THAT(lock.acquire(ClientLock::defaultPath(), Deadline(std::chrono::milliseconds(0))),
                Succeeded());
}

TEST(ClientConnectWithoutService, RefusesQueuesOfAnotherRecordSize)
{
    FakeService stranger(128);
    Client client(impatient());

    EXPECT_THAT(client.connect(), FailedWith(ErrorCode::kSystem, HasSubstr("128 bytes, not 284")));
}

TEST_F(ClientConnect, SucceedsAndStaysConnectedWhenAskedAgain)
{
    EXPECT_THAT(client.connect(), Succeeded());
    EXPECT_THAT(client.connect(), Succeeded());
}

TEST_F(ClientConnect, NamesTheProcessThatHoldsTheChannel)
{
    OtherProcess other(connectHere);
    ASSERT_EQ(other.ready(), 0);

    EXPECT_THAT(
        client.connect(),
        FailedWith(ErrorCode::kBusy, HasSubstr("(process " + std::to_string(other.pid()) + ")")));
}

TEST_F(ClientConnect, SucceedsOnceTheHolderWasKilled)
{
    OtherProcess other(connectHere);
    ASSERT_EQ(other.ready(), 0);
    ASSERT_THAT(client.connect(), FailedWith(ErrorCode::kBusy, testing::_));

    other.kill();

    EXPECT_THAT(client.connect(), Succeeded());
}

TEST_F(ClientConnect, WaitsForTheHolderAsLongAsItWasTold)
{
    auto holder = std::make_unique<Client>(impatient());
    ASSERT_THAT(holder->connect(), Succeeded());
    std::thread release([&holder] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        holder->disconnect();
    });

    ClientOptions patient;
    patient.lockTimeout = std::chrono::seconds(10);
    Client second(patient);
    EXPECT_THAT(second.connect(), Succeeded());
    release.join();
}

TEST_F(ClientConnect, LeavesTheChannelToOthersAfterDisconnecting)
{
    ASSERT_THAT(client.connect(), Succeeded());
    client.disconnect();

    EXPECT_EQ(OtherProcess(connectHere).ready(), 0);
    EXPECT_THAT(client.progress().error, FailedWith(ErrorCode::kNotConnected, testing::_));
}

TEST_F(ClientConnect, IsGivenUpByItsHolderAloneWhenThatHasForked)
{
    ASSERT_THAT(client.connect(), Succeeded());
    OtherProcess leavesItAlone([this] {
        client.disconnect();
        return 0;
    });
    ASSERT_EQ(leavesItAlone.ready(), 0);
    Client second(impatient());
    EXPECT_THAT(second.connect(), FailedWith(ErrorCode::kBusy, testing::_));

    OtherProcess sharesIt([] { return 0; });
    ASSERT_EQ(sharesIt.ready(), 0);
    client.disconnect();
    EXPECT_THAT(second.connect(), Succeeded());
}

TEST_F(ClientConnect, MakesTheLockFileEverybodysWhateverTheUmask)
{
    unlink(ClientLock::defaultPath().c_str());
    const mode_t before = umask(077);
    ASSERT_THAT(client.connect(), Succeeded());
    umask(before);

    struct stat status = {};
    ASSERT_EQ(stat(ClientLock::defaultPath().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0666U);
}

TEST_F(ClientConnect, MeetsAClientOfAnotherUserAtTheSameLock)
{
    ASSERT_THAT(client.connect(), Succeeded());

    OtherProcess other([] {
        if (setgid(kNobody) != 0 || setuid(kNobody) != 0) {
            return -2;
        }
        return connectHere();
    });
    const int result = other.ready();
    if (result == -2) {
        GTEST_SKIP() << "cannot become another user here";
    }
    EXPECT_EQ(result, static_cast<int>(ErrorCode::kBusy));
    client.disconnect();

    OtherProcess later([] { return setuid(kNobody) == 0 ? connectHere() : -2; });
    EXPECT_EQ(later.ready(), 0);
}

TEST_F(ClientConnect, TakesALockFileWithGarbageInIt)
{
    std::ofstream(ClientLock::defaultPath()) << "-12 not a process at all, and much too long too";

    EXPECT_THAT(client.connect(), Succeeded());
}

TEST_F(ClientConnect, LocksInTmpWhereRunLockIsNotEverybodys)
{
    struct stat before = {};
    if (stat("/run/lock", &before) != 0) {
        EXPECT_EQ(ClientLock::defaultPath(), "/tmp/quillon-client.lock");
        return;
    }
    ASSERT_EQ(chmod("/run/lock", 01777), 0);
    EXPECT_EQ(ClientLock::defaultPath(), "/run/lock/quillon-client.lock");
    ASSERT_EQ(chmod("/run/lock", 0755), 0);
    EXPECT_EQ(ClientLock::defaultPath(), "/tmp/quillon-client.lock");
    chmod("/run/lock", before.st_mode & 07777);
}
