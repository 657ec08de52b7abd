#include "helpers/mount/listening-socket.h"
#include "base/fd.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "helpers/shared/failure.h"

using namespace quillon;
using namespace quillon::privileged;
namespace fs = std::filesystem;

namespace {

const std::string kPath = "/run/quillon/listening-test.sock";
const std::string kLock = kPath + ".lock";

int codeOfNewSocket()
{
    try {
        const OwnSocket made(kPath, Callers());
        return 0;
    } catch (const Failure& failure) {
        return failure.code();
    }
}

/// A socket's name without anybody behind it.
void leaveStaleSocket()
{
    const UniqueFd left(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    fs::create_directories("/run/quillon");
    fs::remove(kPath);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, kPath.c_str());
    ASSERT_EQ(bind(left.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
}

}  // namespace

TEST(OwnSocket, LetsNobodyConnectButOwnerAndGroup)
{
    umask(0);
    Callers callers;
    if (geteuid() == 0) {
        callers.group = 5;
    }
    const OwnSocket made(kPath, callers);
    struct stat status = {};
    ASSERT_EQ(lstat(kPath.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFSOCK | 0660));
    EXPECT_EQ(status.st_gid, callers.group.value_or(getegid()));
}

TEST(OwnSocket, TakesItsNameAwayAtTheEnd)
{
    {
        const OwnSocket made(kPath, Callers());
        EXPECT_TRUE(fs::exists(kPath));
    }
    EXPECT_FALSE(fs::exists(kPath));
}

TEST(OwnSocket, LeavesANameThatHasBecomeSomebodyElses)
{
    {
        const OwnSocket made(kPath, Callers());
        fs::remove(kPath);
        std::ofstream(kPath) << "somebody else's";
    }
    EXPECT_TRUE(fs::remove(kPath));
}

TEST(OwnSocket, ReplacesOneThatNobodyListensOn)
{
    leaveStaleSocket();
    EXPECT_EQ(codeOfNewSocket(), 0);
}

TEST(OwnSocket, LeavesTheOneOfARunningHelper)
{
    const OwnSocket running(kPath, Callers());
    EXPECT_EQ(codeOfNewSocket(), EADDRINUSE);
    EXPECT_TRUE(fs::exists(kPath));
}

TEST(OwnSocket, LeavesWhateverIsNoSocket)
{
    fs::create_directories("/run/quillon");
    std::ofstream(kPath) << "a file";
    EXPECT_EQ(codeOfNewSocket(), EEXIST);
    EXPECT_TRUE(fs::is_regular_file(kPath));
    fs::remove(kPath);
    fs::create_symlink("/run/quillon/elsewhere", kPath);
    EXPECT_EQ(codeOfNewSocket(), EEXIST);
    EXPECT_TRUE(fs::is_symlink(kPath));
    fs::remove(kPath);
}

TEST(OwnSocket, IsMadeWhileSomebodyLocksTheDirectory)
{
    fs::create_directories("/run/quillon");
    const UniqueFd somebodys(open("/run/quillon", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_EQ(flock(somebodys.get(), LOCK_SH), 0);
    alarm(60);  // instead of waiting for ever
    EXPECT_EQ(codeOfNewSocket(), 0);
    alarm(0);
}

TEST(OwnSocket, IsMadeUnderALockThatNobodyElseCanTake)
{
    umask(0);
    EXPECT_EQ(codeOfNewSocket(), 0);
    struct stat status = {};
    ASSERT_EQ(lstat(kLock.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFREG | 0600));
}

TEST(OwnSocket, IsNotMadeWhereTheLockIsALinkOrOpenToOthers)
{
    fs::create_directories("/run/quillon");
    fs::remove(kLock);
    fs::create_symlink("/run/quillon/elsewhere", kLock);
    EXPECT_EQ(codeOfNewSocket(), ELOOP);
    EXPECT_FALSE(fs::exists("/run/quillon/elsewhere"));
    fs::remove(kLock);
    EXPECT_EQ(mkfifo(kLock.c_str(), 0600), 0);
    EXPECT_EQ(codeOfNewSocket(), EEXIST);
    fs::remove(kLock);
    std::ofstream(kLock) << "somebody's";
    fs::permissions(kLock, fs::perms(0644));
    EXPECT_EQ(codeOfNewSocket(), EEXIST);
    fs::remove(kLock);
}

TEST(InheritedSocket, IsNoneWithoutOrForAnotherProcess)
{
    unsetenv("LISTEN_PID");
    setenv("LISTEN_FDS", "1", 1);
    EXPECT_FALSE(inheritedSocket());
    setenv("LISTEN_PID", "1", 1);
    if (getpid() != 1) {
        EXPECT_FALSE(inheritedSocket());
    }
}
