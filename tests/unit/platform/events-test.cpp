#include "platform/events.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "notify-socket.h"
#include "platform/linux/event-placeholder.h"
#include "support/files.h"
#include "support/process.h"
#include "support/texts.h"

namespace {

using quillon::test::expectTexts;
using quillon::test::inChildAs;
using quillon::test::readAll;
using quillon::test::writeFile;

namespace fs = std::filesystem;

constexpr char kReady[] = "/tmp/.fw_service_ready_usb";
constexpr char kOther[] = "/tmp/.ignore_resume";
constexpr char kVictim[] = "/tmp/victim";

std::size_t namesBeginningWith(const std::string& path)
{
    std::size_t count = 0;
    for (const auto& entry : fs::directory_iterator(fs::path(path).parent_path())) {
        count += entry.path().string().rfind(path, 0) == 0 ? 1 : 0;
    }
    return count;
}

class Event : public testing::Test
{
protected:
    void SetUp() override
    {
        unsetenv("NOTIFY_SOCKET");
        TearDown();
    }
    void TearDown() override
    {
        for (const char* path : {kReady, kOther, kVictim}) {
            fs::remove_all(path);
        }
    }

    // Whether raising fails for the reason that errno is to tell.
    static void expectRefused(const char* name, int reason)
    {
        errno = 0;
        EXPECT_EQ(LwipcEventDone(name), -1);
        EXPECT_EQ(errno, reason);
    }
};

TEST_F(Event, LeavesAnEmptyFileThatEverybodyMaySee)
{
    umask(0077);
    ASSERT_EQ(LwipcEventDone(kOther), 0);
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(kOther)));
    EXPECT_EQ(fs::file_size(kOther), 0U);
    EXPECT_EQ(fs::status(kOther).permissions(), fs::perms(0644));
}

TEST_F(Event, CanBeRaisedAgainAndGetsANewTimeStamp)
{
    ASSERT_EQ(LwipcEventDone(kOther), 0);
    fs::last_write_time(kOther, fs::file_time_type::clock::now() - std::chrono::hours(1));
    const auto before = fs::last_write_time(kOther);
    EXPECT_EQ(LwipcEventDone(kOther), 0);
    EXPECT_GT(fs::last_write_time(kOther), before);
}

TEST_F(Event, NeverTouchesTheContentsOfAFileThatIsThere)
{
    writeFile(kOther, "precious");
    EXPECT_EQ(LwipcEventDone(kOther), 0);
    EXPECT_EQ(readAll(kOther), "precious");
}

TEST_F(Event, FollowsNoLinkToAFile)
{
    writeFile(kVictim, "precious");
    fs::last_write_time(kVictim, fs::file_time_type::clock::now() - std::chrono::hours(1));
    const auto before = fs::last_write_time(kVictim);
    fs::create_symlink(kVictim, kOther);
    expectRefused(kOther, EEXIST);
    EXPECT_EQ(readAll(kVictim), "precious");
    EXPECT_EQ(fs::last_write_time(kVictim), before);
    EXPECT_TRUE(fs::is_symlink(kOther));
}

TEST_F(Event, CreatesNothingThroughADanglingLink)
{
    fs::create_symlink(kVictim, kOther);
    expectRefused(kOther, EEXIST);
    EXPECT_FALSE(fs::exists(kVictim));
}

TEST_F(Event, LeavesSomebodyElsesFileAlone)
{
    writeFile(kOther, "theirs");
    if (chown(kOther, 1, 1) != 0) {
        GTEST_SKIP() << "needs the right to give a file away";
    }
    expectRefused(kOther, EEXIST);
    EXPECT_EQ(readAll(kOther), "theirs");
}

TEST_F(Event, TakesThePlaceThatIsKeptForIt)
{
    umask(0077);
    fs::create_symlink(quillon::kEventPlaceholder, kOther);
    ASSERT_FALSE(fs::exists(kOther)) << "nobody who waits sees it before it is raised";

    EXPECT_EQ(LwipcEventDone(kOther), 0);

    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(kOther)));
    EXPECT_EQ(fs::status(kOther).permissions(), fs::perms(0644));
    EXPECT_EQ(LwipcEventDone(kOther), 0) << "once more";
    EXPECT_EQ(namesBeginningWith(kOther), 1U) << "nothing is left beside it";
}

TEST_F(Event, LeavesThePlaceThatIsKeptForSomebodyElse)
{
    fs::create_symlink(quillon::kEventPlaceholder, kOther);
    const int status = inChildAs(
        1234, 1234, {}, [] { return LwipcEventDone(kOther) == -1 && errno == EEXIST ? 0 : 1; });
    if (status == 126) {
        GTEST_SKIP() << "there are no other users here";
    }
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(fs::is_symlink(kOther));
    EXPECT_EQ(namesBeginningWith(kOther), 1U);
}

TEST_F(Event, IsNotADirectory)
{
    fs::create_directory(kOther);
    expectRefused(kOther, EEXIST);
}

TEST_F(Event, DoesNotWaitForAFifo)
{
    ASSERT_EQ(mkfifo(kOther, 0600), 0);
    expectRefused(kOther, EEXIST);
}

TEST_F(Event, NeedsAnAbsoluteName)
{
    const char* volatile nothing = nullptr;
    expectRefused(nothing, EINVAL);
    expectRefused("", EINVAL);
    expectRefused("relative", EINVAL);
}

TEST_F(Event, TellsWhyItCouldNotBeRaised)
{
    expectRefused("/tmp/no-such-directory/event", ENOENT);
    expectRefused(("/tmp/" + std::string(300, 'x')).c_str(), ENAMETOOLONG);
}

TEST_F(Event, OfReadinessIsAlsoToldToTheServiceManager)
{
    NotifySocket manager("/tmp/quillon-notify");
    EXPECT_EQ(LwipcEventDone(kReady), 0);
    EXPECT_TRUE(fs::exists(kReady));
    expectTexts(manager.received(), {"READY=1"});
}

TEST_F(Event, OfAnotherNameIsNotToldToTheServiceManager)
{
    NotifySocket manager("/tmp/quillon-notify");
    EXPECT_EQ(LwipcEventDone(kOther), 0);
    expectTexts(manager.received(), {});
}

TEST_F(Event, OfReadinessWorksWithoutAServiceManager)
{
    EXPECT_EQ(LwipcEventDone(kReady), 0);
    EXPECT_TRUE(fs::exists(kReady));
}

TEST_F(Event, OfReadinessReachesTheServiceManagerEvenWhenTheFileIsInTheWay)
{
    NotifySocket manager("/tmp/quillon-notify");
    fs::create_symlink(kVictim, kReady);
    expectRefused(kReady, EEXIST);
    expectTexts(manager.received(), {"READY=1"});
}

TEST_F(Event, OfReadinessFailsWhenTheServiceManagerCannotBeTold)
{
    setenv("NOTIFY_SOCKET", "/tmp/quillon-nobody-listens", 1);
    expectRefused(kReady, ENOENT);
}

}  // namespace
