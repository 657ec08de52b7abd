#include "platform/watchdog.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "captured-stderr.h"
#include "notify-socket.h"
#include "support/texts.h"

namespace {

using quillon::test::expectTexts;
using quillon::test::like;

constexpr int kServicesSeconds = 60;

class Watchdog : public testing::Test
{
protected:
    void SetUp() override
    {
        unsetenv("NOTIFY_SOCKET");
        unsetenv("WATCHDOG_USEC");
        unsetenv("WATCHDOG_PID");
        unsetenv("JOURNAL_STREAM");
    }

    static int registerService()
    {
        return smart_deadlock_register_watchdog_service(kServicesSeconds);
    }

    CapturedStderr captured;
};

TEST_F(Watchdog, IsToldThatTheServiceIsAlive)
{
    NotifySocket manager("/tmp/quillon-notify");
    setenv("WATCHDOG_USEC", "30000000", 1);
    EXPECT_EQ(registerService(), 0);
    expectTexts(manager.received(), {});
    EXPECT_EQ(smart_deadlock_watchdog_notify(), 0);
    EXPECT_EQ(smart_deadlock_watchdog_notify(), 0);
    expectTexts(manager.received(), {"WATCHDOG=1", "WATCHDOG=1"});
    EXPECT_EQ(captured.text(), "");
}

TEST_F(Watchdog, IsFoundBehindAnAbstractSocket)
{
    NotifySocket manager("@quillon-notify-" + std::to_string(getpid()));
    setenv("WATCHDOG_USEC", "30000000", 1);
    registerService();
    EXPECT_EQ(smart_deadlock_watchdog_notify(), 0);
    expectTexts(manager.received(), {"WATCHDOG=1"});
}

TEST_F(Watchdog, MayBeMissing)
{
    NotifySocket manager("/tmp/quillon-notify");
    EXPECT_EQ(registerService(), 0);
    expectTexts(captured.lines(), {like("QUILLON-PLATFORM I *no watchdog*")});
    EXPECT_EQ(smart_deadlock_watchdog_notify(), 0);
    expectTexts(manager.received(), {});
}

TEST_F(Watchdog, OfAnotherProcessIsNotOurs)
{
    NotifySocket manager("/tmp/quillon-notify");
    setenv("WATCHDOG_USEC", "30000000", 1);
    setenv("WATCHDOG_PID", "1", 1);
    if (getpid() == 1) {
        setenv("WATCHDOG_PID", "2", 1);
    }
    EXPECT_EQ(registerService(), 0);
    EXPECT_EQ(smart_deadlock_watchdog_notify(), 0);
    expectTexts(manager.received(), {});
}

TEST_F(Watchdog, OfThisProcessIsOurs)
{
    NotifySocket manager("/tmp/quillon-notify");
    setenv("WATCHDOG_USEC", "30000000", 1);
    setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
    EXPECT_EQ(registerService(), 0);
    EXPECT_EQ(smart_deadlock_watchdog_notify(), 0);
    expectTexts(manager.received(), {"WATCHDOG=1"});
}

TEST_F(Watchdog, ThatIsShorterThanTwoTicksIsComplainedAboutAndServedAllTheSame)
{
    NotifySocket manager("/tmp/quillon-notify");
    setenv("WATCHDOG_USEC", "19999999", 1);
    EXPECT_EQ(registerService(), 0);
    expectTexts(captured.lines(),
                {like("QUILLON-PLATFORM E *WatchdogSec is 19999 ms, it must be at least 20 s*")});
    EXPECT_EQ(smart_deadlock_watchdog_notify(), 0);
    expectTexts(manager.received(), {"WATCHDOG=1"});
}

TEST_F(Watchdog, OfTwentySecondsIsLongEnough)
{
    setenv("WATCHDOG_USEC", "20000000", 1);
    EXPECT_EQ(registerService(), 0);
    EXPECT_EQ(captured.text(), "");
}

TEST_F(Watchdog, WithMalformedTimesIsNone)
{
    NotifySocket manager("/tmp/quillon-notify");
    for (const char* malformed : {"", "0", "-5", "abc", "30000000x", "99999999999999999999999"}) {
        captured.clear();
        setenv("WATCHDOG_USEC", malformed, 1);
        EXPECT_EQ(registerService(), 0) << malformed;
        SCOPED_TRACE(malformed);
        expectTexts(captured.lines(), {like("QUILLON-PLATFORM E *WATCHDOG_USEC*")});
        EXPECT_EQ(smart_deadlock_watchdog_notify(), 0) << malformed;
    }
    expectTexts(manager.received(), {});
}

TEST_F(Watchdog, OfAMalformedProcessIsNone)
{
    NotifySocket manager("/tmp/quillon-notify");
    setenv("WATCHDOG_USEC", "30000000", 1);
    for (const char* malformed : {"", "0", "-1", "abc", "1x"}) {
        captured.clear();
        setenv("WATCHDOG_PID", malformed, 1);
        EXPECT_EQ(registerService(), 0) << malformed;
        SCOPED_TRACE(malformed);
        expectTexts(captured.lines(), {like("*WATCHDOG_PID*")});
        EXPECT_EQ(smart_deadlock_watchdog_notify(), 0) << malformed;
    }
    expectTexts(manager.received(), {});
}

TEST_F(Watchdog, IsNotToldBeforeTheServiceRegistered)
{
    NotifySocket manager("/tmp/quillon-notify");
    setenv("WATCHDOG_USEC", "30000000", 1);
    EXPECT_EQ(smart_deadlock_watchdog_notify(), 0);
    expectTexts(manager.received(), {});
}

TEST_F(Watchdog, LearnsThatTheServiceStopsAndHearsNoMore)
{
    NotifySocket manager("/tmp/quillon-notify");
    setenv("WATCHDOG_USEC", "30000000", 1);
    registerService();
    EXPECT_EQ(smart_deadlock_unregister_watchdog_service(), 0);
    EXPECT_EQ(smart_deadlock_watchdog_notify(), 0);
    expectTexts(manager.received(), {"STOPPING=1"});
}

TEST_F(Watchdog, MayBeLeftWithoutHavingBeenJoined)
{
    EXPECT_EQ(smart_deadlock_unregister_watchdog_service(), 0);
    EXPECT_EQ(captured.text(), "");
}

TEST_F(Watchdog, ThatCannotBeToldIsAFailureWithItsReason)
{
    setenv("WATCHDOG_USEC", "30000000", 1);
    setenv("NOTIFY_SOCKET", "/tmp/quillon-nobody-listens", 1);
    registerService();
    errno = 0;
    EXPECT_NE(smart_deadlock_watchdog_notify(), 0);
    EXPECT_EQ(errno, ENOENT);
    expectTexts(captured.lines(), {like("*WATCHDOG=1*No such file*")});
}

TEST_F(Watchdog, BehindASocketNameThatCannotBeIsAFailure)
{
    setenv("WATCHDOG_USEC", "30000000", 1);
    const std::string tooLong = "/" + std::string(200, 'x');
    registerService();
    for (const char* name : {"relative", "/", "@", tooLong.c_str()}) {
        setenv("NOTIFY_SOCKET", name, 1);
        errno = 0;
        EXPECT_NE(smart_deadlock_watchdog_notify(), 0) << name;
        EXPECT_NE(errno, 0) << name;
    }
}

TEST_F(Watchdog, IsNotLookedForInTheCurrentDirectory)
{
    NotifySocket manager("/tmp/quillon-notify");
    setenv("WATCHDOG_USEC", "30000000", 1);
    registerService();
    ASSERT_EQ(chdir("/tmp"), 0);
    setenv("NOTIFY_SOCKET", "quillon-notify", 1);
    errno = 0;
    EXPECT_NE(smart_deadlock_watchdog_notify(), 0);
    EXPECT_NE(errno, 0);
    expectTexts(manager.received(), {});
}

TEST_F(Watchdog, KeepsTheEnvironmentAsItIs)
{
    NotifySocket manager("/tmp/quillon-notify");
    setenv("WATCHDOG_USEC", "30000000", 1);
    registerService();
    smart_deadlock_watchdog_notify();
    EXPECT_STREQ(getenv("WATCHDOG_USEC"), "30000000");
    EXPECT_STREQ(getenv("NOTIFY_SOCKET"), "/tmp/quillon-notify");
}

}  // namespace
