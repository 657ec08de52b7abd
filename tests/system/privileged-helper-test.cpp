#include "system/privileged-helper.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/loop.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <thread>

#include "support/files.h"
#include "support/process.h"
#include "support/texts.h"
#include "system/daemon.h"
#include "unit/helpers/mount/hostile-requests.h"

using namespace quillon::test;
using quillon::privileged::Kind;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
namespace fs = std::filesystem;

namespace {

constexpr uid_t kUser = 1234;
constexpr gid_t kGroup = 2345;
constexpr const char* kOutside = "/var/lib/quillon/outside.img";

/// A rename that works from one file system to another as well.
void moveFile(const std::string& from, const std::string& to)
{
    fs::copy_file(from, to);
    fs::remove(from);
}

std::vector<std::string> devices()
{
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator("/dev")) {
        names.push_back(entry.path().filename().string());
    }
    return names;
}

/// What a client of another user gets, as an exit status: the result, or 200 without an answer.
int umountNothing()
{
    return askBare(Kind::kUnmount, std::string(kMountDirectory) + "nothing").value_or(200);
}

bool isWayInPlace()
{
    const char* way = std::getenv("QUILLON_DEVICE");
    return way == nullptr || std::string(way) == "in-place";
}

/// Whether there are other users at all: not in a user namespace that knows only its root.
bool hasOtherUsers()
{
    return asUser(kUser, {kGroup}, [] { return 0; }) == 0;
}

/// The number of a loop device that nothing uses now; the kernel gets it ready.
unsigned freeLoopNumber()
{
    const int control = ::open("/dev/loop-control", O_RDWR | O_CLOEXEC);
    const int number = ::ioctl(control, LOOP_CTL_GET_FREE);
    ::close(control);
    return static_cast<unsigned>(number);
}

void removeLoopNodes()
{
    for (unsigned number = 0; number < 250; ++number) {
        ::unlink(("/dev/loop" + std::to_string(number)).c_str());
    }
}

std::string helpText()
{
    return outputOf(QUILLON_PRIVILEGED_PROGRAM " --help");
}

}  // namespace

// Packages.

TEST_F(PackageMount, ShowsASquashfsPackageReadOnlyFromALoopDevice)
{
    const std::string name = unique("alpha");
    addSquashfs(name, "inside");
    helper.startAndWait();
    ASSERT_EQ(mountPackage(name), kDone) << helper.log();

    EXPECT_EQ(contentOf(name), "inside");
    EXPECT_THAT(
        mounts(mountPointOf(name)),
        ElementsAre(testing::MatchesRegex("/dev/loop[0-9]+ [^ ]+ squashfs ro,nosuid,nodev,.*")));
    EXPECT_EQ(loopDevicesOf(name), 1U);
}

TEST_F(PackageMount, ShowsAnExt4PackageReadOnlyAndNeverPanics)
{
    const std::string name = unique("alpha");
    addExt4(name, "inside");
    run("tune2fs -e panic " + imageOf(name));
    helper.startAndWait();
    ASSERT_EQ(mountPackage(name), kDone) << helper.log();

    EXPECT_EQ(contentOf(name), "inside");
    EXPECT_THAT(mounts(mountPointOf(name)),
                ElementsAre(testing::MatchesRegex(
                    "/dev/loop[0-9]+ [^ ]+ ext4 ro,nosuid,nodev,.*errors=remount-ro.*")));
    EXPECT_EQ(::open((mountPointOf(name) + "/new").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600),
              -1);
    EXPECT_EQ(errno, EROFS);
}

TEST_F(PackageMount, LetsGoOfTheLoopDeviceWhenItIsUnmounted)
{
    const std::string name = unique("alpha");
    addSquashfs(name);
    helper.startAndWait();
    const auto before = mounts();
    for (int round = 0; round < 20; ++round) {
        ASSERT_EQ(mountPackage(name), kDone) << helper.log();
        ASSERT_EQ(unmountPackage(name), kDone) << helper.log();
    }
    EXPECT_EQ(mounts(), before);
    EXPECT_EQ(loopDevicesOf(name), 0U);
    EXPECT_TRUE(fs::is_directory(mountPointOf(name)));
}

TEST_F(PackageMount, IsRefusedWhereAPackageIsMountedAlready)
{
    const std::string name = unique("alpha");
    const std::string other = unique("beta");
    addSquashfs(name, "first");
    addExt4(other, "second");
    helper.startAndWait();
    ASSERT_EQ(mountPackage(name), kDone) << helper.log();
    EXPECT_EQ(mountPackage(name), answered(EBUSY));
    EXPECT_EQ(mountPackage(other, name), answered(EBUSY));
    expectText(helper.log(), like("*refused: " + name + " has a package mounted already*"));
    EXPECT_EQ(contentOf(name), "first");
    EXPECT_EQ(mounts(mountPointOf(name)).size(), 1U);
    EXPECT_EQ(loopDevicesOf(name), 1U);
    EXPECT_EQ(loopDevicesOf(other), 0U);

    ASSERT_EQ(unmountPackage(name), kDone) << helper.log();
    EXPECT_EQ(mountPackage(other, name), kDone) << helper.log();
    EXPECT_EQ(contentOf(name), "second");
}

TEST_F(PackageMount, IsNotKeptOffByAnotherPackageOrAnotherMount)
{
    const std::string name = unique("alpha");
    const std::string other = unique("beta");
    addSquashfs(name, "inside");
    addSquashfs(other);
    helper.startAndWait();
    ASSERT_EQ(mountPackage(other), kDone) << helper.log();
    ASSERT_EQ(::mount("tmpfs", mountPointOf(name).c_str(), "tmpfs", 0, nullptr), 0);
    EXPECT_EQ(mountPackage(name), kDone) << helper.log();
    EXPECT_EQ(contentOf(name), "inside");
}

TEST_F(PackageMount, UnmountsTheTopmostOfSeveral)
{
    const std::string name = unique("alpha");
    addSquashfs(name, "lower");
    addExt4(name + "upper", "upper");
    helper.startAndWait();
    ASSERT_EQ(mountPackage(name), kDone) << helper.log();
    run("mount -o ro,loop " + imageOf(name + "upper") + " " + mountPointOf(name));
    EXPECT_EQ(contentOf(name), "upper");
    ASSERT_EQ(unmountPackage(name), kDone) << helper.log();
    EXPECT_EQ(contentOf(name), "lower");
    ASSERT_EQ(unmountPackage(name), kDone) << helper.log();
    EXPECT_EQ(contentOf(name), "");
    EXPECT_EQ(unmountPackage(name), answered(EINVAL));
}

TEST_F(PackageMount, StaysWhileAFileOfItIsOpen)
{
    const std::string name = unique("alpha");
    addSquashfs(name, "inside");
    helper.startAndWait();
    ASSERT_EQ(mountPackage(name), kDone) << helper.log();
    const int file = ::open((mountPointOf(name) + "/name").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_NE(file, -1);
    EXPECT_EQ(unmountPackage(name), answered(EBUSY));
    EXPECT_EQ(contentOf(name), "inside");
    ::close(file);
    EXPECT_EQ(unmountPackage(name), kDone) << helper.log();
}

TEST_F(PackageMount, IsServedToSeveralClientsAtATime)
{
    constexpr int kClients = 4;
    std::vector<std::string> names;
    for (int i = 0; i < kClients; ++i) {
        names.push_back(unique("alpha" + std::string(1, static_cast<char>('a' + i))));
        addSquashfs(names.back());
    }
    helper.startAndWait();
    std::vector<std::thread> clients;
    for (const std::string& name : names) {
        clients.emplace_back([&name] {
            for (int round = 0; round < 10; ++round) {
                EXPECT_EQ(mountPackage(name), kDone);
                EXPECT_EQ(contentOf(name), name);
                EXPECT_EQ(unmountPackage(name), kDone);
            }
        });
    }
    for (std::thread& client : clients) {
        client.join();
    }
    expectTexts(mounts(kMountDirectory), {});
}

// What is not a package.

TEST_F(PackageMount, RefusesOtherFileSystemsAndKeepsNoLoopDevice)
{
    const std::string name = unique("alpha");
    fs::create_directories(mountPointOf(name));
    helper.startAndWait();
    const auto before = mounts();
    const std::vector<std::string> contents = {
        "",
        "short",
        std::string(1 << 20, '\0'),
        std::string(1 << 20, 'x'),
        "hsqs" + std::string(1 << 20, 'x'),
        std::string(1080, '\0') + "\x53\xef" + std::string(1 << 20, 'x')};
    for (const std::string& content : contents) {
        std::ofstream(imageOf(name), std::ios::trunc) << content;
        const Outcome outcome = mountPackage(name);
        EXPECT_EQ(outcome.returned, 0);
        EXPECT_GT(outcome.result, 0);
    }
    EXPECT_EQ(mounts(), before);
    EXPECT_EQ(loopDevicesOf(name), 0U);
    expectText(helper.log(), like("*holds neither squashfs nor ext4*"));
}

TEST_F(PackageMount, RefusesAnExt4ThatWouldHaveToBeRepairedFirst)
{
    const std::string name = unique("alpha");
    addExt4(name);
    run("debugfs -w -R 'feature needs_recovery' " + imageOf(name));
    helper.startAndWait();
    EXPECT_EQ(mountPackage(name), answered(EROFS));
    EXPECT_EQ(loopDevicesOf(name), 0U);
}

TEST_F(PackageMount, RefusesAnImageThatIsALink)
{
    const std::string name = unique("alpha");
    addSquashfs(name);
    moveFile(imageOf(name), kOutside);
    fs::create_symlink(kOutside, imageOf(name));
    helper.startAndWait();
    EXPECT_EQ(mountPackage(name), answered(EINVAL));
    expectTexts(mounts(kMountDirectory), {});
}

TEST_F(PackageMount, RefusesAnImageWithASecondName)
{
    const std::string name = unique("alpha");
    addSquashfs(name);
    fs::create_hard_link(imageOf(name), kPackageDirectory + ("." + name));
    helper.startAndWait();
    EXPECT_EQ(mountPackage(name), answered(EMLINK));
    fs::remove(kPackageDirectory + ("." + name));
    EXPECT_EQ(mountPackage(name), kDone) << helper.log();
}

TEST_F(PackageMount, RefusesAnImageThatIsNoFileWithoutTouchingIt)
{
    const std::string name = unique("alpha");
    fs::create_directories(mountPointOf(name));
    helper.startAndWait();
    EXPECT_EQ(mountPackage(name), answered(ENOENT));
    ASSERT_EQ(::mkfifo(imageOf(name).c_str(), 0600), 0);
    EXPECT_EQ(mountPackage(name), answered(EINVAL));
    fs::remove(imageOf(name));
    fs::create_directory(imageOf(name));
    EXPECT_EQ(mountPackage(name), answered(EINVAL));
}

TEST_F(PackageMount, WaitsForNobodyWhoHasALeaseOnTheImage)
{
    const std::string name = unique("alpha");
    addSquashfs(name);
    helper.startAndWait();
    const int file = ::open(imageOf(name).c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_NE(file, -1);
    ::signal(SIGIO, SIG_IGN);  // how the kernel asks the holder to let go
    if (::fcntl(file, F_SETLEASE, F_WRLCK) != 0) {
        GTEST_SKIP() << "here are no leases";
    }
    EXPECT_EQ(mountPackage(name), answered(EWOULDBLOCK));
    ::close(file);
    EXPECT_EQ(mountPackage(name), kDone) << helper.log();
}

TEST_F(PackageMount, RefusesAMountPointThatIsALinkOrNoDirectory)
{
    const std::string name = unique("alpha");
    const std::string elsewhere = "/var/lib/quillon/elsewhere";
    addSquashfs(name);
    fs::remove(mountPointOf(name));
    fs::create_directories(elsewhere);
    helper.startAndWait();
    EXPECT_EQ(mountPackage(name), answered(ENOENT));
    fs::create_directory_symlink(elsewhere, mountPointOf(name));
    EXPECT_EQ(mountPackage(name), answered(ENOTDIR));
    fs::remove(mountPointOf(name));
    std::ofstream(mountPointOf(name)) << "a file";
    EXPECT_EQ(mountPackage(name), answered(ENOTDIR));
    expectTexts(mounts(elsewhere), {});
    EXPECT_EQ(loopDevicesOf(name), 0U);
}

TEST_F(PackageMount, RefusesALinkAnywhereOnTheWay)
{
    if (isWayInPlace()) {
        GTEST_SKIP() << "would move directories of the machine itself";
    }
    const std::string name = unique("alpha");
    addSquashfs(name);
    helper.startAndWait();
    for (const char* directory : {"/opt/usr/apps", "/opt/usr"}) {
        const std::string moved = std::string(directory) + "-moved";
        fs::rename(directory, moved);
        fs::create_directory_symlink(moved, directory);
        ASSERT_TRUE(fs::exists(imageOf(name)));
        EXPECT_EQ(mountPackage(name), answered(ENOTDIR)) << directory;
        EXPECT_EQ(unmountPackage(name), answered(ENOTDIR)) << directory;
        fs::remove(directory);
        fs::rename(moved, directory);
    }
    EXPECT_EQ(mountPackage(name), kDone) << helper.log();
}

TEST_F(PackageMount, MountsNothingElseHoweverFastTheImageIsSwapped)
{
    const std::string name = unique("alpha");
    addSquashfs(name, "outside");
    moveFile(imageOf(name), kOutside);
    addSquashfs(name, "inside");
    helper.startAndWait();

    const std::string link = kPackageDirectory + std::string("link");
    fs::create_symlink(kOutside, link);
    std::atomic<bool> done{false};
    std::thread swapper([&] {
        while (!done) {
            ::renameat2(AT_FDCWD, link.c_str(), AT_FDCWD, imageOf(name).c_str(), RENAME_EXCHANGE);
        }
    });
    int mounted = 0;
    int refused = 0;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    for (int round = 0;
         (round < 200 || mounted == 0 || refused == 0) && std::chrono::steady_clock::now() < end;
         ++round) {
        const Outcome outcome = mountPackage(name);
        EXPECT_EQ(outcome.returned, 0);
        if (outcome.result != 0) {
            ++refused;
            continue;
        }
        ++mounted;
        EXPECT_EQ(contentOf(name), "inside");
        EXPECT_EQ(unmountPackage(name), kDone);
    }
    done = true;
    swapper.join();
    EXPECT_GT(mounted, 0);
    EXPECT_GT(refused, 0);
}

TEST_F(PackageMount, MountsNowhereElseHoweverFastTheMountPointIsSwapped)
{
    const std::string name = unique("alpha");
    const std::string elsewhere = "/var/lib/quillon/elsewhere";
    const std::string link = kMountDirectory + std::string("link");
    addSquashfs(name);
    fs::create_directories(elsewhere);
    fs::create_directory_symlink(elsewhere, link);
    helper.startAndWait();

    std::atomic<bool> done{false};
    std::thread swapper([&] {
        while (!done) {
            ::renameat2(AT_FDCWD, link.c_str(), AT_FDCWD, mountPointOf(name).c_str(),
                        RENAME_EXCHANGE);
        }
    });
    int mounted = 0;
    int refused = 0;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    for (int round = 0;
         (round < 200 || mounted == 0 || refused == 0) && std::chrono::steady_clock::now() < end;
         ++round) {
        const Outcome outcome = mountPackage(name);
        EXPECT_EQ(outcome.returned, 0);
        ++(outcome.result == 0 ? mounted : refused);
        ASSERT_THAT(mounts(elsewhere), IsEmpty());
        for (const char* place : {link.c_str(), mountPointOf(name).c_str()}) {
            ::umount2(place, MNT_DETACH | UMOUNT_NOFOLLOW);
        }
    }
    done = true;
    swapper.join();
    EXPECT_GT(mounted, 0);
    EXPECT_GT(refused, 0);
}

TEST_F(PackageMount, UnmountsOnlyWhatComesFromALoopDevice)
{
    const std::string name = unique("alpha");
    fs::create_directories(mountPointOf(name));
    helper.startAndWait();
    EXPECT_EQ(unmountPackage(name), answered(EINVAL));
    EXPECT_EQ(unmountPackage("missing"), answered(ENOENT));
    ASSERT_EQ(::mount("/dev/loop0", mountPointOf(name).c_str(), "tmpfs", 0, nullptr), 0);
    EXPECT_EQ(unmountPackage(name), answered(EINVAL));
    EXPECT_EQ(mounts(mountPointOf(name)).size(), 1U);
}

TEST_F(PackageMount, TakesADirectoryThatLiesOnALoopDeviceForNoMount)
{
    const std::string name = unique("alpha");
    const std::string directories = "/var/lib/quillon/directories";
    addSquashfs(name, "inside");
    fs::create_directories(directories + "/content/" + name);
    run("mke2fs -q -F -t ext4 -d " + directories + "/content " + directories + "/image 2M");
    run("mount -o ro,loop " + directories + "/image " + kMountDirectory);
    helper.startAndWait();
    EXPECT_EQ(unmountPackage(name), answered(EINVAL));
    EXPECT_EQ(mountPackage(name), kDone) << helper.log();
    EXPECT_EQ(contentOf(name), "inside");
    EXPECT_EQ(unmountPackage(name), kDone) << helper.log();
    EXPECT_EQ(unmountPackage(name), answered(EINVAL));
    run(std::string("umount ") + kMountDirectory);
}

TEST_F(PackageMount, UnmountsNothingBehindALink)
{
    const std::string name = unique("alpha");
    const std::string link = unique("link");
    addSquashfs(name);
    helper.startAndWait();
    ASSERT_EQ(mountPackage(name), kDone) << helper.log();
    fs::create_directory_symlink(mountPointOf(name), mountPointOf(link));
    EXPECT_EQ(unmountPackage(link), answered(ENOTDIR));
    EXPECT_EQ(mounts(mountPointOf(name)).size(), 1U);
}

// Nodes.

TEST_F(PackageMount, FailsCleanlyWithoutAFreeNodeAndWorksWithTheOneThatIsMadeThen)
{
    if (isWayInPlace()) {
        GTEST_SKIP() << "would remove device nodes of the machine itself";
    }
    const std::string name = unique("alpha");
    addSquashfs(name, "inside");
    helper.startAndWait();
    removeLoopNodes();
    EXPECT_EQ(mountPackage(name), answered(ENODEV));
    EXPECT_THAT(devices(), Not(testing::Contains(testing::MatchesRegex("loop[0-9]+"))));

    // Another device on this machine may be faster to take the number that we make a node for.
    Outcome outcome = answered(ENODEV);
    for (int attempt = 0; attempt < 20 && outcome == answered(ENODEV); ++attempt) {
        makeLoopNode(freeLoopNumber());
        outcome = mountPackage(name);
    }
    EXPECT_EQ(outcome, kDone) << helper.log();
    EXPECT_EQ(contentOf(name), "inside");
}

TEST_F(PrivilegedHelper, MakesALoopNodeAsAskedWhateverTheMask)
{
    if (isWayInPlace()) {
        GTEST_SKIP() << "would make device nodes of the machine itself";
    }
    ::umask(0777);
    helper.startAndWait();
    const Outcome outcome = makeLoopNode(249);
    if (outcome == answered(EPERM)) {
        GTEST_SKIP() << "this machine does not let us make device nodes here";
    }
    ASSERT_EQ(outcome, kDone) << helper.log();
    struct stat status = {};
    ASSERT_EQ(::lstat("/dev/loop249", &status), 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFBLK | 0660));
    EXPECT_EQ(status.st_rdev, makedev(7, 249));
    EXPECT_EQ(makeLoopNode(249), answered(EEXIST));
    EXPECT_EQ(makeLoopNode(250), answered(EACCES));
    EXPECT_FALSE(fs::exists("/dev/loop250"));
}

TEST_F(PrivilegedHelper, LeavesWhateverStandsInANodesPlace)
{
    if (isWayInPlace()) {
        GTEST_SKIP() << "would write into the machine's own /dev";
    }
    std::ofstream("/dev/loop248") << "a file";
    fs::create_symlink("/dev/somewhere", "/dev/loop247");
    helper.startAndWait();
    EXPECT_EQ(makeLoopNode(248), answered(EEXIST));
    EXPECT_EQ(makeLoopNode(247), answered(EEXIST));
    EXPECT_FALSE(fs::exists("/dev/somewhere"));
}

// Hostile requests.

TEST_F(PrivilegedHelper, RefusesEachHostileRequestAndChangesNothing)
{
    fs::create_directories(mountPointOf("alpha"));
    std::ofstream(imageOf("alpha")) << "hsqs";
    helper.startAndWait();
    const auto mountsBefore = mounts();
    const auto devicesBefore = devices();
    const auto requests = hostileRequests();
    for (const HostileRequest& request : requests) {
        EXPECT_EQ(askBare(request.kind, request.text), EACCES) << request.text;
    }
    EXPECT_EQ(mounts(), mountsBefore);
    EXPECT_EQ(devices(), devicesBefore);

    const std::string log = helper.log();
    for (const HostileRequest& request : requests) {
        ASSERT_THAT(log, HasSubstr(request.expected));
    }
    const auto lines = std::count(log.begin(), log.end(), '\n');
    EXPECT_EQ(static_cast<std::size_t>(lines), 1 + requests.size()) << "one line for each";
}

// Who may ask.

TEST_F(PrivilegedHelper, LetsOnlyRootInByItself)
{
    if (!hasOtherUsers()) {
        GTEST_SKIP() << "there are no other users here";
    }
    helper.startAndWait();
    EXPECT_EQ(asUser(kUser, {kGroup}, umountNothing), 200) << "the socket's mode";
    ASSERT_EQ(::chmod(QUILLON_PRIVILEGED_SOCKET, 0666), 0);
    EXPECT_EQ(asUser(kUser, {kGroup}, umountNothing), EPERM);
    expectText(helper.log(), like("*refused: user 1234 may not ask*"));
    EXPECT_EQ(umountNothing(), ENOENT);
}

TEST_F(PrivilegedHelper, LetsTheNamedUserIn)
{
    if (!hasOtherUsers()) {
        GTEST_SKIP() << "there are no other users here";
    }
    helper.startAndWait({"--user", std::to_string(kUser)});
    EXPECT_EQ(asUser(kUser, {kGroup}, umountNothing), ENOENT);
    EXPECT_EQ(asUser(kUser + 1, {kGroup}, umountNothing), 200);
    ASSERT_EQ(::chmod(QUILLON_PRIVILEGED_SOCKET, 0666), 0);
    EXPECT_EQ(asUser(kUser + 1, {kGroup}, umountNothing), EPERM);
}

TEST_F(PrivilegedHelper, LetsTheMembersOfTheNamedGroupIn)
{
    if (!hasOtherUsers()) {
        GTEST_SKIP() << "there are no other users here";
    }
    helper.startAndWait({"--group", std::to_string(kGroup)});
    EXPECT_EQ(asUser(kUser, {kGroup}, umountNothing), ENOENT);
    EXPECT_EQ(asUser(kUser, {1, 2, 3, kGroup}, umountNothing), ENOENT);
    std::vector<gid_t> many(1000, 7);
    many.push_back(kGroup);
    EXPECT_EQ(asUser(kUser, many, umountNothing), ENOENT);
    ASSERT_EQ(::chmod(QUILLON_PRIVILEGED_SOCKET, 0666), 0);
    EXPECT_EQ(asUser(kUser, {1, 2, 3}, umountNothing), EPERM);
}

TEST_F(PrivilegedHelper, KnowsUsersByName)
{
    if (!hasOtherUsers()) {
        GTEST_SKIP() << "there are no other users here";
    }
    helper.startAndWait({"--user", "nobody", "--group", "nogroup"});
    struct stat status = {};
    ASSERT_EQ(::lstat(QUILLON_PRIVILEGED_SOCKET, &status), 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFSOCK | 0660));
    EXPECT_EQ(asUser(65534, {1}, umountNothing), ENOENT);
}

TEST_F(PackageMount, IsGrantedToAnOrdinaryUserWhoWasNamed)
{
    if (!hasOtherUsers()) {
        GTEST_SKIP() << "there are no other users here";
    }
    const std::string name = unique("alpha");
    addSquashfs(name, "inside");
    helper.startAndWait({"--user", std::to_string(kUser)});
    EXPECT_EQ(asUser(kUser, {kGroup}, [&] { return mountPackage(name).result; }), 0);
    EXPECT_EQ(contentOf(name), "inside");
    EXPECT_EQ(asUser(kUser, {kGroup}, [&] { return unmountPackage(name).result; }), 0);
    EXPECT_EQ(contentOf(name), "");
}

// The process.

TEST_F(PrivilegedHelper, EndsInOrderOnSigtermAndTakesItsSocketAway)
{
    helper.startAndWait();
    EXPECT_TRUE(fs::exists(QUILLON_PRIVILEGED_SOCKET));
    EXPECT_EQ(helper.end(), 0);
    EXPECT_FALSE(fs::exists(QUILLON_PRIVILEGED_SOCKET));
}

TEST_F(PrivilegedHelper, OutlivesWhoeverReadsItsLog)
{
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    helper.start({}, [&] {
        ::dup2(ends[1], 2);
        ::signal(SIGPIPE, SIG_DFL);
    });
    ::close(ends[0]);
    ::close(ends[1]);
    EXPECT_TRUE(eventually([] { return umountNothing() == ENOENT; }));
    EXPECT_EQ(helper.end(), 0);
}

TEST_F(PrivilegedHelper, ComesBackAfterItWasKilled)
{
    {
        Helper killed;
        killed.startAndWait();
    }
    EXPECT_TRUE(fs::exists(QUILLON_PRIVILEGED_SOCKET));
    helper.startAndWait();
    EXPECT_EQ(umountNothing(), ENOENT);
}

TEST_F(PrivilegedHelper, LeavesTheSocketToTheOneThatRuns)
{
    helper.startAndWait();
    Helper second;
    second.start();
    EXPECT_EQ(second.wait(), 1);
    expectText(second.log(), like("*another helper listens there*"));
    EXPECT_EQ(umountNothing(), ENOENT);
}

TEST_F(PrivilegedHelper, ServesOnASocketThatIsHandedOver)
{
    const int listener = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, QUILLON_PRIVILEGED_SOCKET);
    fs::create_directories(fs::path(QUILLON_PRIVILEGED_SOCKET).parent_path());
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(listener, 5), 0);
    helper.start({}, [listener] {
        ::dup2(listener, 3);
        ::fcntl(3, F_SETFD, 0);
        ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
        ::setenv("LISTEN_FDS", "1", 1);
    });
    EXPECT_EQ(umountNothing(), ENOENT);
    EXPECT_EQ(helper.end(), 0);
    EXPECT_TRUE(fs::exists(QUILLON_PRIVILEGED_SOCKET)) << "it is the service manager's";
    ::close(listener);
}

TEST_F(PrivilegedHelper, TakesNothingElseForAHandedOverSocket)
{
    const auto handOver = [](int fd, const char* count) {
        Helper given;
        given.start({}, [fd, count] {
            ::dup2(fd, 3);
            ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
            ::setenv("LISTEN_FDS", count, 1);
        });
        EXPECT_EQ(given.wait(), 1);
        expectText(given.log(), like("*not one listening SOCK_SEQPACKET socket*"));
    };
    handOver(::open("/dev/null", O_RDONLY | O_CLOEXEC), "1");
    handOver(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), "1");
    handOver(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0), "1");
    handOver(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0), "2");
}

TEST_F(PrivilegedHelper, RefusesWrongUsageInOneLine)
{
    for (const std::vector<std::string>& options :
         std::vector<std::vector<std::string>>{{"--wrong"},
                                               {"--user"},
                                               {"--user", ""},
                                               {"--user", "no such user"},
                                               {"--group", "-1"},
                                               {"--group", "4294967295"},
                                               {"--user", "99999999999999999999"},
                                               {"argument"}}) {
        Helper wrong;
        wrong.start(options);
        EXPECT_EQ(wrong.wait(), 2);
        const std::string log = wrong.log();
        expectText(log, like("quillon-privileged: *"));
        EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
    }
}

TEST_F(PrivilegedHelper, NeedsRoot)
{
    helper.start({}, [] {
        if (::setuid(kUser) != 0) {
            ::_exit(127);
        }
    });
    const int status = helper.wait();
    if (status == 127) {
        GTEST_SKIP() << "here no other user can start the program";
    }
    EXPECT_EQ(status, 1);
    EXPECT_EQ(helper.log(), "quillon-privileged: needs to run as root\n");
}

TEST_F(PrivilegedHelper, HasAManualPageWithEveryOption)
{
    const std::string manual = readAll(MANUAL_PAGE);
    const std::string help = helpText();
    const std::regex option("--([a-z]+)");
    int options = 0;
    for (std::sregex_iterator match(help.begin(), help.end(), option), end; match != end; ++match) {
        expectText(manual, like("* , -" + (*match)[1].str() + "*"));
        ++options;
    }
    EXPECT_GE(options, 4);
    expectText(manual, like("*" + std::string(QUILLON_PRIVILEGED_SOCKET) + "*"));
}
