// What somebody else has put where the clients' lock belongs.
#include "client/client-lock.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <utility>

#include "support/files.h"
#include "unit/client/client-matchers.h"

using namespace quillon;
using testing::AllOf;
using testing::HasSubstr;

namespace {

using quillon::test::readAll;

constexpr unsigned int kNobody = 65534;

std::function<void()> g_beforeLock;

}  // namespace

/// In front of the system's, so that a test can come between opening and locking, once.
extern "C" int flock(int file, int operation) noexcept
{
    if (const auto act = std::exchange(g_beforeLock, nullptr)) {
        act();
    }
    return static_cast<int>(syscall(SYS_flock, file, operation));
}

class ClientLockPlace : public testing::Test
{
protected:
    ClientLockPlace() { unlink(path.c_str()); }
    ~ClientLockPlace() override
    {
        unlink(foreign.c_str());
        unlink(path.c_str());
        rmdir(path.c_str());
    }

    Error acquire() { return lock.acquire(path, Deadline(std::chrono::milliseconds(0))); }

    /// That the error says what is wrong, and who has to remove what.
    auto isRefused(const std::string& why, unsigned int owner = 0) const
    {
        return FailedWith(ErrorCode::kSystem, AllOf(HasSubstr(path), HasSubstr(why),
                                                    HasSubstr("remove it as root or as user " +
                                                              std::to_string(owner))));
    }

    const std::string path = ClientLock::defaultPath();
    const std::string foreign = path + ".foreign";
    ClientLock lock;
};

TEST_F(ClientLockPlace, WithAHardLinkToAForeignFileIsRefusedAndTheFileUntouched)
{
    std::ofstream(foreign) << "not ours";
    ASSERT_EQ(chmod(foreign.c_str(), 0644), 0);
    ASSERT_EQ(link(foreign.c_str(), path.c_str()), 0);

    EXPECT_THAT(acquire(), isRefused("another name"));
    EXPECT_FALSE(lock.isHeld());
    EXPECT_EQ(readAll(foreign), "not ours");
}

TEST_F(ClientLockPlace, WithALockThatSomebodyHasGivenASecondNameIsTaken)
{
    ASSERT_THAT(acquire(), Succeeded());
    lock.release();
    ASSERT_EQ(link(path.c_str(), foreign.c_str()), 0);

    ASSERT_THAT(acquire(), Succeeded());

    ClientLock other;
    EXPECT_THAT(other.acquire(path, Deadline(std::chrono::milliseconds(0))),
                FailedWith(ErrorCode::kBusy, "another client is using the update service"));
    lock.release();
    EXPECT_THAT(other.acquire(path, Deadline(std::chrono::milliseconds(0))), Succeeded());
}

TEST_F(ClientLockPlace, WithAHardLinkToAFileThatIsOpenToEverybodyNeverTouchesWhatIsInIt)
{
    std::ofstream(foreign) << "12 not ours";
    ASSERT_EQ(chmod(foreign.c_str(), 0666), 0);
    ASSERT_EQ(link(foreign.c_str(), path.c_str()), 0);

    ASSERT_THAT(acquire(), Succeeded());
    EXPECT_EQ(readAll(foreign), "12 not ours");
    ClientLock other;
    EXPECT_THAT(other.acquire(path, Deadline(std::chrono::milliseconds(0))),
                FailedWith(ErrorCode::kBusy, "another client is using the update service"));

    lock.release();
    EXPECT_EQ(readAll(foreign), "12 not ours");
}

TEST_F(ClientLockPlace, WithALockThatGetsASecondNameWhileItIsHeldIsGivenUp)
{
    ASSERT_THAT(acquire(), Succeeded());
    ASSERT_EQ(link(path.c_str(), foreign.c_str()), 0);

    lock.release();

    EXPECT_THAT(acquire(), Succeeded());
}

TEST_F(ClientLockPlace, WithASymbolicLinkIsRefusedAndNothingMade)
{
    ASSERT_EQ(symlink(foreign.c_str(), path.c_str()), 0);

    EXPECT_THAT(acquire(), isRefused("symbolic link"));
    EXPECT_NE(access(foreign.c_str(), F_OK), 0);
}

TEST_F(ClientLockPlace, WithAFifoIsRefused)
{
    ASSERT_EQ(mkfifo(path.c_str(), 0666), 0);

    EXPECT_THAT(acquire(), isRefused("not a regular file"));
}

TEST_F(ClientLockPlace, WithADirectoryIsRefused)
{
    ASSERT_EQ(mkdir(path.c_str(), 0777), 0);

    EXPECT_THAT(acquire(), isRefused("not a regular file"));
}

TEST_F(ClientLockPlace, WithAFileThatOnlyItsOwnerMayUseIsRefusedToOthers)
{
    std::ofstream(path) << "mine";
    ASSERT_EQ(chmod(path.c_str(), 0600), 0);
    if (seteuid(kNobody) != 0) {
        GTEST_SKIP() << "cannot become another user here";
    }

    EXPECT_THAT(acquire(), isRefused("Permission denied"));
    EXPECT_EQ(seteuid(0), 0);
    EXPECT_EQ(readAll(path), "mine");
}

TEST_F(ClientLockPlace, NamesTheOwnerWhoMayRemoveWhatIsInTheWay)
{
    ASSERT_EQ(mkfifo(path.c_str(), 0666), 0);
    if (lchown(path.c_str(), kNobody, kNobody) != 0) {
        GTEST_SKIP() << "cannot give files away here";
    }

    EXPECT_THAT(acquire(), isRefused("not a regular file", kNobody));
}

TEST_F(ClientLockPlace, WithAFileThatIsAlreadyThereIsTaken)
{
    std::ofstream(path).close();

    EXPECT_THAT(acquire(), Succeeded());
    EXPECT_EQ(readAll(path), std::to_string(getpid()) + "\n");
}

TEST_F(ClientLockPlace, WithAFileThatIsReplacedWhileItIsTakenIsTakenAnew)
{
    std::ofstream(path).close();
    std::ofstream(foreign).close();
    g_beforeLock = [&] { rename(foreign.c_str(), path.c_str()); };

    EXPECT_THAT(lock.acquire(path, Deadline(std::chrono::minutes(1))), Succeeded());

    EXPECT_EQ(readAll(path), std::to_string(getpid()) + "\n");
}

TEST_F(ClientLockPlace, InADirectoryThatIsMissingCannotBeUsed)
{
    EXPECT_THAT(lock.acquire("/tmp/missing/lock", Deadline(std::chrono::milliseconds(0))),
                FailedWith(ErrorCode::kSystem, HasSubstr("/tmp/missing/lock: No such file")));
}
