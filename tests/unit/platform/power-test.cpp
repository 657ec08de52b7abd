#include "platform/power.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <thread>
#include <vector>

#include "captured-stderr.h"
#include "fake-logind.h"
#include "other-process.h"
#include "support/texts.h"
#include "support/wait.h"
#include "system-bus.h"

namespace {

using quillon::test::expectTexts;
using quillon::test::like;
using quillon::test::waitFor;

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using testing::SizeIs;

constexpr int kType = 2;
constexpr int kLong = 600000;

std::size_t threadsOfThisProcess()
{
    const fs::directory_iterator tasks("/proc/self/task");
    return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
}

/// Expects one line that says so, within a time that an update does not mind.
void expectNoLock(const CapturedStderr& captured, const std::string& reason)
{
    const auto start = steady_clock::now();
    EXPECT_EQ(device_power_lock_state(kType, kLong), -1);
    EXPECT_LT(steady_clock::now() - start, seconds(7));
    expectTexts(
        captured.lines(),
        {like("QUILLON-PLATFORM E inhibitor.cpp: *the update runs without one: " + reason + "*")});
    EXPECT_EQ(device_power_unlock_state(kType), 0);
}

class PowerLock : public testing::Test
{
protected:
    void SetUp() override
    {
        unsetenv("JOURNAL_STREAM");
        if (!SystemBus::canStart()) {
            GTEST_SKIP() << "there is no dbus-daemon on this machine";
        }
        bus = std::make_unique<SystemBus>();
    }
    void TearDown() override
    {
        device_power_unlock_state(kType);
        device_power_unlock_state(kType + 1);
    }

    std::unique_ptr<SystemBus> bus;
    CapturedStderr captured;
};

TEST_F(PowerLock, BlocksShutdownSleepAndIdleness)
{
    const FakeLogind logind;
    EXPECT_EQ(device_power_lock_state(kType, kLong), 0);

    std::vector<std::string> blocked;
    for (const FakeLogind::Asked& asked : logind.asked()) {
        blocked.push_back(asked.what);
        EXPECT_EQ(asked.who, "quillon");
        EXPECT_EQ(asked.why, "The firmware of the device's components is being updated");
        EXPECT_EQ(asked.mode, "block");
    }
    expectTexts(blocked, {"shutdown", "sleep", "idle"});
    EXPECT_TRUE(logind.isHeld(0));
    EXPECT_EQ(captured.text(), "");
}

TEST_F(PowerLock, EndsWithTheUnlock)
{
    const FakeLogind logind;
    EXPECT_EQ(device_power_lock_state(kType, kLong), 0);
    EXPECT_TRUE(logind.isHeld(0));

    EXPECT_EQ(device_power_unlock_state(kType), 0);

    logind.waitForRelease(0);
    EXPECT_EQ(captured.text(), "");
}

TEST_F(PowerLock, EndsByItselfWithItsTimeAndNotBefore)
{
    const FakeLogind logind;
    const auto start = steady_clock::now();
    EXPECT_EQ(device_power_lock_state(kType, 700), 0);
    EXPECT_TRUE(logind.isHeld(0));

    logind.waitForRelease(0);

    EXPECT_GE(steady_clock::now() - start, milliseconds(700));
    EXPECT_LT(steady_clock::now() - start, seconds(5));
    expectTexts(captured.lines(), {like("QUILLON-PLATFORM I power.cpp: *the power lock 2 was "
                                        "not given back in its time*")});
    EXPECT_EQ(device_power_unlock_state(kType), 0);
}

TEST_F(PowerLock, MayLastLongerThanMillisecondsCanBeCountedInSeconds)
{
    const FakeLogind logind;
    EXPECT_EQ(device_power_lock_state(kType, INT_MAX), 0);
    usleep(100000);
    EXPECT_TRUE(logind.isHeld(0));
}

TEST_F(PowerLock, IsReplacedByASecondOneOfItsType)
{
    const FakeLogind logind;
    EXPECT_EQ(device_power_lock_state(kType, 300), 0);
    EXPECT_EQ(device_power_lock_state(kType, kLong), 0);

    logind.waitForRelease(0);
    usleep(500000);  // the first one's time is over
    EXPECT_TRUE(logind.isHeld(1));
    EXPECT_EQ(captured.text(), "");
    EXPECT_EQ(device_power_unlock_state(kType), 0);
    logind.waitForRelease(1);
}

TEST_F(PowerLock, MayBeReplacedByAShorterOne)
{
    const FakeLogind logind;
    EXPECT_EQ(device_power_lock_state(kType, kLong), 0);
    EXPECT_EQ(device_power_lock_state(kType, 100), 0);
    logind.waitForRelease(1);
    EXPECT_FALSE(logind.isHeld(0));
}

TEST_F(PowerLock, StaysWhenTheSecondOneIsRefused)
{
    FakeLogind logind;
    EXPECT_EQ(device_power_lock_state(kType, kLong), 0);
    logind.setManner(FakeLogind::Manner::kRefuse);
    EXPECT_EQ(device_power_lock_state(kType, kLong), -1);
    EXPECT_TRUE(logind.isHeld(0));
}

TEST_F(PowerLock, OfOneTypeHasNothingToDoWithAnother)
{
    const FakeLogind logind;
    EXPECT_EQ(device_power_lock_state(kType, kLong), 0);
    EXPECT_EQ(device_power_lock_state(kType + 1, 200), 0);
    logind.waitForRelease(1);
    EXPECT_TRUE(logind.isHeld(0));
    EXPECT_EQ(device_power_unlock_state(kType + 1), 0);
    EXPECT_TRUE(logind.isHeld(0));
}

TEST_F(PowerLock, MayBeTakenAgainAndAgain)
{
    const FakeLogind logind;
    for (std::size_t round = 0; round < 5; ++round) {
        EXPECT_EQ(device_power_lock_state(kType, kLong), 0);
        EXPECT_TRUE(logind.isHeld(round));
        EXPECT_EQ(device_power_unlock_state(kType), 0);
        logind.waitForRelease(round);
    }
    EXPECT_EQ(device_power_lock_state(kType, 50), 0);
    logind.waitForRelease(5);
}

TEST_F(PowerLock, HasAThreadOnlyWhileItIsHeld)
{
    const FakeLogind logind;
    const std::size_t before = threadsOfThisProcess();
    EXPECT_EQ(device_power_lock_state(kType, kLong), 0);
    EXPECT_EQ(device_power_lock_state(kType + 1, kLong), 0);
    usleep(100000);  // so that the thread waits for the locks' end
    EXPECT_EQ(threadsOfThisProcess(), before + 1);
    device_power_unlock_state(kType);
    device_power_unlock_state(kType + 1);
    waitFor("the thread's end", [before] { return threadsOfThisProcess() <= before; });
    EXPECT_EQ(threadsOfThisProcess(), before);
}

TEST_F(PowerLock, MayBeTakenAndGivenBackByManyThreads)
{
    const FakeLogind logind;
    std::vector<std::thread> threads;
    for (int number = 0; number < 4; ++number) {
        threads.emplace_back([number] {
            for (int round = 0; round < 25; ++round) {
                EXPECT_EQ(device_power_lock_state(kType + number % 2, 1 + round), 0);
                EXPECT_EQ(device_power_unlock_state(kType + number % 2), 0);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    ASSERT_THAT(logind.asked(), SizeIs(100 * FakeLogind::kInhibitorsALock));
    for (std::size_t number = 0; number < 100; ++number) {
        logind.waitForRelease(number);
    }
}

TEST_F(PowerLock, LetsAChildOfThisProcessEnd)
{
    const FakeLogind logind;
    EXPECT_EQ(device_power_lock_state(kType, kLong), 0);
    EXPECT_TRUE(forkedChildEnds());
    EXPECT_TRUE(logind.isHeld(0));
}

TEST_F(PowerLock, OfNoTimeIsRefusedAndLeavesTheHeldOne)
{
    const FakeLogind logind;
    EXPECT_EQ(device_power_lock_state(kType, kLong), 0);
    for (const int time : {0, -1, INT_MIN}) {
        captured.clear();
        EXPECT_EQ(device_power_lock_state(kType, time), -1);
        expectTexts(captured.lines(), {like("QUILLON-PLATFORM E power.cpp: *a power lock of " +
                                            std::to_string(time) + "*")});
    }
    EXPECT_EQ(logind.asked().size(), FakeLogind::kInhibitorsALock);
    EXPECT_TRUE(logind.isHeld(0));
}

TEST_F(PowerLock, FailsWhenLogindRefuses)
{
    const FakeLogind logind(FakeLogind::Manner::kRefuse);
    expectNoLock(captured, "not for this user");
}

TEST_F(PowerLock, ThatIsRefusedInPartIsNone)
{
    const FakeLogind logind(FakeLogind::Manner::kRefuseIdle);
    expectNoLock(captured, "not for this user");
    logind.waitForPartsReleased();
}

TEST_F(PowerLock, FailsWhenLogindSendsNoDescriptor)
{
    const FakeLogind logind(FakeLogind::Manner::kGiveNoDescriptor);
    expectNoLock(captured, "");
}

TEST_F(PowerLock, FailsInTimeWhenLogindDoesNotAnswer)
{
    const FakeLogind logind(FakeLogind::Manner::kKeepSilent);
    expectNoLock(captured, "Connection timed out");
    EXPECT_EQ(logind.asked().size(), FakeLogind::kInhibitorsALock);
}

TEST_F(PowerLock, FailsWhereThereIsNoLogind)
{
    expectNoLock(captured, "The name org.freedesktop.login1 was not provided");
}

TEST(PowerLockWithoutBus, Fails)
{
    unsetenv("JOURNAL_STREAM");
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/tmp/quillon-no-bus", 1);
    const CapturedStderr captured;
    const auto start = steady_clock::now();
    expectNoLock(captured, "No such file or directory");
    EXPECT_LT(steady_clock::now() - start, seconds(1));
    unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
}

TEST(PowerLockWithoutBus, FailsInTimeWhenTheBusSaysNothing)
{
    unsetenv("JOURNAL_STREAM");
    const std::string path = "/tmp/quillon-silent-bus-" + std::to_string(getpid());
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(fd, 1), 0);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + path).c_str(), 1);

    const CapturedStderr captured;
    expectNoLock(captured, "Connection timed out");

    unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    close(fd);
    unlink(path.c_str());
}

TEST(PowerLockWithoutBus, IsNeverHeldAfterAnUnlock)
{
    const CapturedStderr captured;
    EXPECT_EQ(device_power_unlock_state(kType), 0);
    EXPECT_EQ(captured.text(), "");
}

}  // namespace
