#include "process/started-process.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "process/ready-socket.h"

namespace quillon::bench {
namespace {

const std::string kDoNothing = BUILD_FOLDER "/bench/do-nothing";

std::vector<std::string> shell(const std::string& script)
{
    return {"/bin/sh", "-c", script};
}

TEST(StartedProcess, TellsHowLongItTookUntilItSaidReady)
{
    ReadySocket socket;
    StartedProcess process({kDoNothing}, socket);

    const double milliseconds = process.waitUntilReady().count();

    EXPECT_GT(milliseconds, 0.1);
    EXPECT_LT(milliseconds, 20000);
}

TEST(StartedProcess, SleepingBeforeReadinessCounts)
{
    ReadySocket socket;
    StartedProcess process(shell("sleep 0.2; exec " + kDoNothing), socket);

    EXPECT_GE(process.waitUntilReady().count(), 200);
}

TEST(StartedProcess, OneThatEndsBeforeItIsReadyIsAnErrorAtOnce)
{
    ReadySocket socket;
    StartedProcess process(shell("exit 0"), socket);
    const auto begin = std::chrono::steady_clock::now();

    EXPECT_THROW(process.waitUntilReady(), std::runtime_error);

    EXPECT_LT(std::chrono::steady_clock::now() - begin, kLongestStart / 2);
}

TEST(StartedProcess, TheReadinessOfAnotherProcessDoesNotCount)
{
    ReadySocket socket;
    StartedProcess other({kDoNothing}, socket);
    StartedProcess process(shell("sleep 0.3"), socket);

    EXPECT_THROW(process.waitUntilReady(), std::runtime_error);
}

TEST(StartedProcess, IsGoneAfterItsLife)
{
    ReadySocket socket;
    pid_t pid = -1;
    {
        StartedProcess process({kDoNothing}, socket);
        process.waitUntilReady();
        pid = process.pid();
        EXPECT_EQ(kill(pid, 0), 0);
    }

    EXPECT_EQ(kill(pid, 0), -1);
    EXPECT_EQ(errno, ESRCH);
}

TEST(StartedProcess, SeesNoWatchdogOfOurServiceManager)
{
    ASSERT_EQ(setenv("WATCHDOG_USEC", "30000000", 1), 0);
    ASSERT_EQ(setenv("NOTIFY_SOCKET", "/nobody/listens/here", 1), 0);
    ReadySocket socket;

    StartedProcess process(shell("[ -z \"$WATCHDOG_USEC\" ] && exec " + kDoNothing), socket);

    EXPECT_NO_THROW(process.waitUntilReady());
}

TEST(StartedProcess, AProgramThatIsNotThereIsAnError)
{
    ReadySocket socket;

    EXPECT_THROW(StartedProcess({"/no/such/program"}, socket), std::system_error);
}

TEST(OutputOf, CollectsAllThatAProgramWrites)
{
    EXPECT_EQ(outputOf({"sh", "-c", "printf 'one\\ntwo'"}), "one\ntwo");
    EXPECT_EQ(outputOf({"sh", "-c", "printf %100000d 1"}).size(), 100000U);
}

TEST(OutputOf, AFailureOfTheProgramIsAnError)
{
    EXPECT_THROW(outputOf({"false"}), std::runtime_error);
    EXPECT_THROW(outputOf({"sh", "-c", "kill -9 $$"}), std::runtime_error);
    EXPECT_THROW(outputOf({"/no/such/program"}), std::runtime_error);
}

}  // namespace
}  // namespace quillon::bench
