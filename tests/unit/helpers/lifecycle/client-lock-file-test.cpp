#include "helpers/lifecycle/client-lock-file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

namespace {

namespace fs = std::filesystem;

constexpr char kLock[] = "/tmp/quillon-client.lock";
constexpr char kOther[] = "/tmp/other";

void provide()
{
    quillon::unit::provideClientLock(kLock);
}

struct stat statusOf(const char* path)
{
    struct stat status = {};
    EXPECT_EQ(lstat(path, &status), 0) << path;
    return status;
}

bool isAt(const char* path, int file)
{
    struct stat status = {};
    return fstat(file, &status) == 0 && status.st_ino == statusOf(path).st_ino;
}

bool lock(int file)
{
    return flock(file, LOCK_EX | LOCK_NB) == 0;
}

class ClientLockFile : public testing::Test
{
protected:
    ClientLockFile()
    {
        umask(0);
        fs::remove_all(kLock);
        fs::remove_all(kOther);
    }

    static void expectUsable()
    {
        const struct stat status = statusOf(kLock);
        EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFREG | 0666));
        EXPECT_EQ(status.st_uid, 0U);
        EXPECT_EQ(status.st_nlink, 1U);
    }
};

TEST_F(ClientLockFile, IsMadeForEverybodyWhateverTheMask)
{
    umask(0777);

    provide();

    expectUsable();
}

TEST_F(ClientLockFile, ThatAClientHasMadeStaysWithItsLock)
{
    const int client = open(kLock, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    ASSERT_TRUE(lock(client));

    provide();

    expectUsable();
    EXPECT_TRUE(isAt(kLock, client));
    EXPECT_FALSE(lock(open(kLock, O_RDWR | O_CLOEXEC))) << "two clients at a time";
}

TEST_F(ClientLockFile, ThatIsClosedToOthersIsReplacedOnceNobodyHoldsItAndNeverOpened)
{
    std::ofstream(kLock) << "precious";
    chmod(kLock, 0600);
    const int client = open(kLock, O_RDWR | O_CLOEXEC);
    ASSERT_TRUE(lock(client));

    provide();
    EXPECT_TRUE(isAt(kLock, client)) << "two clients at a time";
    EXPECT_EQ(statusOf(kLock).st_mode & 0777U, 0600U) << "a file of somebody's was opened";
    flock(client, LOCK_UN);
    provide();

    expectUsable();
    EXPECT_FALSE(isAt(kLock, client));
    struct stat status = {};
    fstat(client, &status);
    EXPECT_EQ(status.st_mode & 0777U, 0600U) << "a file of somebody's was opened";
}

TEST_F(ClientLockFile, ThatIsOpenToEverybodyBecomesRootsAndKeepsItsLock)
{
    const int client = open(kLock, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fchown(client, 1234, 1234) != 0) {
        GTEST_SKIP() << "there are no other users here";
    }
    ASSERT_TRUE(lock(client));
    ASSERT_EQ(write(client, "17\n", 3), 3) << "as clients do";

    provide();

    expectUsable();
    EXPECT_TRUE(isAt(kLock, client)) << "two clients at a time";
}

TEST_F(ClientLockFile, WithASecondNameIsReplacedOnceNobodyHoldsIt)
{
    std::ofstream(kOther) << "precious";
    chmod(kOther, 0600);
    fs::create_hard_link(kOther, kLock);
    const int client = open(kLock, O_RDWR | O_CLOEXEC);
    ASSERT_TRUE(lock(client));

    provide();
    EXPECT_EQ(statusOf(kLock).st_ino, statusOf(kOther).st_ino);
    flock(client, LOCK_UN);
    provide();

    expectUsable();
    EXPECT_NE(statusOf(kLock).st_ino, statusOf(kOther).st_ino);
    EXPECT_EQ(statusOf(kOther).st_mode & 0777U, 0600U) << "a file of somebody's was opened";
    EXPECT_EQ(fs::file_size(kOther), 8U);
}

struct Trap
{
    const char* name;
    std::function<bool()> lay;
};

class TrappedClientLockFile : public ClientLockFile, public testing::WithParamInterface<Trap>
{
};

TEST_P(TrappedClientLockFile, IsReplaced)
{
    std::ofstream(kOther) << "precious";
    ASSERT_TRUE(GetParam().lay());

    provide();

    expectUsable();
    EXPECT_EQ(fs::file_size(kOther), 8U);
}

INSTANTIATE_TEST_SUITE_P(OfEachKind, TrappedClientLockFile,
                         testing::Values(Trap{"Link", [] { return symlink(kOther, kLock) == 0; }},
                                         Trap{"DeadLink",
                                              [] { return symlink("/nonexistent/x", kLock) == 0; }},
                                         Trap{"Fifo", [] { return mkfifo(kLock, 0600) == 0; }},
                                         Trap{"Directory", [] { return mkdir(kLock, 0700) == 0; }}),
                         [](const auto& trap) { return trap.param.name; });

}  // namespace
