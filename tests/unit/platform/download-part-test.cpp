#include "platform/linux/download-part.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <optional>

#include "base/fd.h"
#include "download-fixture.h"
#include "support/files.h"
#include "support/process.h"
#include "support/texts.h"

namespace {

using quillon::DownloadPart;
using quillon::PartResult;
using quillon::UniqueFd;
using quillon::test::expectTexts;
using quillon::test::inChild;
using quillon::test::readAll;
using quillon::test::writeFile;

namespace fs = std::filesystem;

constexpr char kAddress[] = "http://127.0.0.1/";
constexpr uid_t kNobody = 65534;

/// A child that a module has forked off, and that lives on.
class ForkedChild
{
public:
    ForkedChild() : pid_(fork())
    {
        EXPECT_GE(pid_, 0);
        while (pid_ == 0) {
            pause();
        }
    }
    ~ForkedChild()
    {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    ForkedChild(const ForkedChild&) = delete;
    ForkedChild& operator=(const ForkedChild&) = delete;

private:
    pid_t pid_;
};

/// The suite's name has it run before the suites that have threads, if all run in one process.
class DownloadPartDeathTest : public DownloadFixture
{
protected:
    void SetUp() override
    {
        DownloadFixture::SetUp();
        fs::create_directories(kDirectory);
        permissions_ = fs::status(kDirectory).permissions();
    }

    void TearDown() override
    {
        EXPECT_EQ(seteuid(user_), 0);
        fs::permissions(kDirectory, permissions_);
        DownloadFixture::TearDown();
    }

    /// Leaves a file of that owner and mode, as a killed download does.
    /// @return false when files cannot be given away here
    static bool leaveFile(const std::string& name, uid_t owner, mode_t mode)
    {
        writeFile(pathOf(name), "left behind");
        EXPECT_EQ(chmod(pathOf(name).c_str(), mode), 0);
        return chown(pathOf(name).c_str(), owner, owner) == 0;
    }

    static bool append(DownloadPart& part, const std::string& text)
    {
        return part.append(text.data(), text.size());
    }

    /// Leaves what a killed download leaves.
    static void beginOne()
    {
        DownloadPart part("alpha", kAddress);
        ASSERT_EQ(part.open(), PartResult::kOk);
        ASSERT_TRUE(part.restart("\"one\"") && append(part, "package"));
    }

    static void expectNothingTakenUp()
    {
        DownloadPart part("alpha", kAddress);
        ASSERT_EQ(part.open(), PartResult::kOk);
        EXPECT_EQ(part.validator(), "");
        EXPECT_EQ(part.size(), 0U);
        EXPECT_EQ(readAll(pathOf(partOf("alpha"))), "");
    }

private:
    const uid_t user_ = geteuid();
    fs::perms permissions_ = fs::perms::none;
};

/// Notes what becomes of the names in the packages' directory.
class NoticedNames
{
public:
    explicit NoticedNames(const char* directory) : fd_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK))
    {
        EXPECT_GE(inotify_add_watch(fd_.get(), directory, IN_ATTRIB | IN_MOVE), 0);
    }

    std::vector<std::string> read() const
    {
        alignas(inotify_event) char bytes[4096];
        std::vector<std::string> names;
        for (ssize_t size = 0; (size = ::read(fd_.get(), bytes, sizeof bytes)) > 0;) {
            for (ssize_t at = 0; at < size;) {
                const auto* event = reinterpret_cast<const inotify_event*>(bytes + at);
                const char* what = (event->mask & IN_ATTRIB) != 0       ? "changed "
                                   : (event->mask & IN_MOVED_FROM) != 0 ? "from "
                                                                        : "to ";
                names.push_back(what + std::string(event->name));
                at += static_cast<ssize_t>(sizeof *event + event->len);
            }
        }
        return names;
    }

private:
    UniqueFd fd_;
};

// While it has its hidden name, another download takes a part that others may open for a foreign
// one.
TEST_F(DownloadPartDeathTest, GetsAPackagesModeOnlyWithAPackagesName)
{
    DownloadPart part("alpha", kAddress);
    ASSERT_EQ(part.open(), PartResult::kOk);
    ASSERT_TRUE(part.restart(""));
    ASSERT_TRUE(append(part, "package"));
    const NoticedNames noticed(kDirectory);

    EXPECT_TRUE(part.place());

    expectTexts(noticed.read(), {"from " + partOf("alpha"), "to alpha.img", "changed alpha.img"});
}

TEST_F(DownloadPartDeathTest, DoesNotPlaceOrDiscardAFileThatHasTakenItsName)
{
    DownloadPart first("alpha", kAddress);
    ASSERT_EQ(first.open(), PartResult::kOk);
    ASSERT_TRUE(append(first, "the whole package"));
    fs::remove(pathOf(partOf("alpha")));
    DownloadPart second("alpha", kAddress);
    ASSERT_EQ(second.open(), PartResult::kOk);
    ASSERT_TRUE(append(second, "a part"));

    EXPECT_FALSE(first.place());
    EXPECT_EQ(first.failure(),
              "Stale file handle: somebody removes or replaces " + pathOf(partOf("alpha")));
    expectTexts(namesInDirectory(), {partOf("alpha")});
    first.discard();
    EXPECT_EQ(readAll(pathOf(partOf("alpha"))), "a part");

    ASSERT_TRUE(append(second, " and the rest"));
    EXPECT_TRUE(second.place());
    EXPECT_EQ(readAll(pathOf("alpha.img")), "a part and the rest");
}

TEST_F(DownloadPartDeathTest, IsFreeAfterItsEndWhateverChildrenLive)
{
    std::optional<DownloadPart> first(std::in_place, "alpha", kAddress);
    ASSERT_EQ(first->open(), PartResult::kOk);
    const ForkedChild child;
    first.reset();

    DownloadPart second("alpha", kAddress);
    EXPECT_EQ(second.open(), PartResult::kOk);
}

TEST_F(DownloadPartDeathTest, StaysLockedWhenAForkedChildDropsIt)
{
    std::optional<DownloadPart> first(std::in_place, "alpha", kAddress);
    ASSERT_EQ(first->open(), PartResult::kOk);
    ASSERT_EQ(inChild([&first] {
                  first.reset();
                  return 0;
              }),
              0);

    DownloadPart second("alpha", kAddress);
    EXPECT_EQ(second.open(), PartResult::kBusy);
}

TEST_F(DownloadPartDeathTest, IsNotHeldUpByWhatAnotherUsersDownloadLeft)
{
    fs::permissions(kDirectory, fs::perms(0777));
    if (!leaveFile(partOf("alpha"), 0, 0600) || seteuid(kNobody) != 0) {
        GTEST_SKIP() << "cannot become another user here";
    }

    DownloadPart part("alpha", kAddress);
    EXPECT_EQ(part.open(), PartResult::kOk);
    EXPECT_EQ(part.size(), 0U);
    ASSERT_TRUE(append(part, "package"));
    EXPECT_TRUE(part.place());
    EXPECT_EQ(readAll(pathOf("alpha.img")), "package");
}

TEST_F(DownloadPartDeathTest, IsNotHeldUpByAFileThatAnotherUserHasLockedInItsPlace)
{
    if (!leaveFile(partOf("alpha"), kNobody, 0600)) {
        GTEST_SKIP() << "cannot give files away here";
    }
    const UniqueFd locked(open(pathOf(partOf("alpha")).c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(flock(locked.get(), LOCK_EX), 0);

    DownloadPart part("alpha", kAddress);
    EXPECT_EQ(part.open(), PartResult::kOk);
    EXPECT_EQ(part.size(), 0U);
}

// Who may write to the directory may move files of others into it.
TEST_F(DownloadPartDeathTest, IsNoOtherFileThatSomebodyMovedToItsPlace)
{
    beginOne();
    leaveFile("private", geteuid(), 0600);
    fs::rename(pathOf("private"), pathOf(partOf("alpha")));

    expectNothingTakenUp();
}

// One that was made after the part had gone, and got its inode.
TEST_F(DownloadPartDeathTest, IsNoFileThatWasMadeAtAnotherTime)
{
    beginOne();
    std::string note = readAll(pathOf(noteOf("alpha")));
    const std::size_t afterTime = note.rfind(" \n");
    ASSERT_NE(afterTime, note.npos);
    note[afterTime - 1] = note[afterTime - 1] == '1' ? '2' : '1';
    writeFile(pathOf(noteOf("alpha")), note);

    expectNothingTakenUp();
}

TEST_F(DownloadPartDeathTest, IsNotTakenUpByANoteThatSomebodyElseMayHaveWritten)
{
    beginOne();
    ASSERT_EQ(chmod(pathOf(noteOf("alpha")).c_str(), 0620), 0);
    expectNothingTakenUp();

    beginOne();
    fs::create_hard_link(pathOf(noteOf("alpha")), pathOf("other"));
    expectNothingTakenUp();

    beginOne();
    if (chown(pathOf(noteOf("alpha")).c_str(), kNobody, kNobody) != 0) {
        GTEST_SKIP() << "cannot give files away here";
    }
    expectNothingTakenUp();
}

TEST_F(DownloadPartDeathTest, NamesTheDirectoryInItsNotesPlace)
{
    fs::create_directory(pathOf(noteOf("alpha")));

    DownloadPart part("alpha", kAddress);
    ASSERT_EQ(part.open(), PartResult::kOk);
    EXPECT_FALSE(part.restart("\"one\""));
    EXPECT_EQ(part.failure(), "Is a directory: remove " + pathOf(noteOf("alpha")) +
                                  " as root or as user " + std::to_string(geteuid()) +
                                  ", who owns it");
}

TEST_F(DownloadPartDeathTest, OfOneUserDoesNotMeetThatOfAnother)
{
    fs::permissions(kDirectory, fs::perms(0777));
    DownloadPart ofRoot("alpha", kAddress);
    ASSERT_EQ(ofRoot.open(), PartResult::kOk);
    ASSERT_TRUE(ofRoot.restart("\"one\"") && append(ofRoot, "package of root"));
    if (seteuid(kNobody) != 0) {
        GTEST_SKIP() << "cannot become another user here";
    }
    DownloadPart ofNobody("alpha", kAddress);
    ASSERT_EQ(ofNobody.open(), PartResult::kOk);
    ASSERT_TRUE(ofNobody.restart("\"two\"") && append(ofNobody, "package of nobody"));
    ASSERT_EQ(seteuid(0), 0);

    EXPECT_TRUE(ofRoot.place());
    EXPECT_EQ(readAll(pathOf("alpha.img")), "package of root");
    EXPECT_TRUE(ofNobody.place());
    EXPECT_EQ(readAll(pathOf("alpha.img")), "package of nobody");
    expectTexts(namesInDirectory(), {"alpha.img"});
}

TEST_F(DownloadPartDeathTest, NamesWhoCanRemoveTheFileThatIsInItsWay)
{
    fs::permissions(kDirectory, fs::perms(01777));
    const std::string path = pathOf(".alpha.65534.part");
    if (!leaveFile(".alpha.65534.part", 0, 0600) || seteuid(kNobody) != 0) {
        GTEST_SKIP() << "cannot become another user here";
    }

    DownloadPart part("alpha", kAddress);
    EXPECT_EQ(part.open(), PartResult::kFailed);
    EXPECT_EQ(part.failure(),
              "Operation not permitted: remove " + path + " as root or as user 0, who owns it");
}

TEST_F(DownloadPartDeathTest, NamesThePackageThatItMayNotReplace)
{
    fs::permissions(kDirectory, fs::perms(01777));
    if (!leaveFile("alpha.img", 0, 0644) || seteuid(kNobody) != 0) {
        GTEST_SKIP() << "cannot become another user here";
    }

    DownloadPart part("alpha", kAddress);
    ASSERT_EQ(part.open(), PartResult::kOk);
    EXPECT_FALSE(part.place());
    EXPECT_EQ(part.failure(), "Operation not permitted: remove " + pathOf("alpha.img") +
                                  " as root or as user 0, who owns it");
}

TEST_F(DownloadPartDeathTest, NamesTheDirectoryThatItMayNotWrite)
{
    fs::permissions(kDirectory, fs::perms(0755));
    if (seteuid(kNobody) != 0) {
        GTEST_SKIP() << "cannot become another user here";
    }

    DownloadPart part("alpha", kAddress);
    EXPECT_EQ(part.open(), PartResult::kFailed);
    EXPECT_EQ(part.failure(),
              std::string("Permission denied: user 65534 may not write to ") + kDirectory);
}

/// From now on that system call does nothing and returns that error, or success for 0.
bool stopCall(unsigned int number, unsigned int error)
{
    const sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program = {std::size(filter), const_cast<sock_filter*>(filter)};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

bool canStopCalls()
{
    return inChild([] { return stopCall(SYS_fchmod, 0) ? 0 : 1; }) == 0;
}

// vfat shows one mode for all files, and refuses another one or forgets it, as it was mounted.
TEST_F(DownloadPartDeathTest, IsTakenUpWhereTheFileSystemHasNoModes)
{
    if (!canStopCalls()) {
        GTEST_SKIP() << "cannot filter system calls here";
    }
    for (const int error : {0, EPERM}) {
        beginOne();
        ASSERT_EQ(chmod(pathOf(noteOf("alpha")).c_str(), 0755), 0);
        ASSERT_EQ(chmod(pathOf(partOf("alpha")).c_str(), 0755), 0);

        EXPECT_EQ(inChild([error] {
                      DownloadPart part("alpha", kAddress);
                      const bool isPlaced = stopCall(SYS_fchmod, error) &&
                                            part.open() == PartResult::kOk && part.size() == 7 &&
                                            part.place();
                      return isPlaced ? 0 : 1;
                  }),
                  0);
        EXPECT_EQ(readAll(pathOf("alpha.img")), "package");
        fs::remove(pathOf("alpha.img"));
    }
}

// Such as a network file system on which root is not root.
TEST_F(DownloadPartDeathTest, IsUsedWhereTheFileSystemShowsAnotherOwner)
{
    if (!canStopCalls() || geteuid() != 0) {
        GTEST_SKIP() << "cannot filter system calls or change the user here";
    }
    fs::permissions(kDirectory, fs::perms(0777));

    EXPECT_EQ(inChild([] {
                  // What this user makes is not of the user that it takes itself for.
                  const bool isReady = setuid(kNobody) == 0 && stopCall(SYS_geteuid, 0);
                  DownloadPart part("alpha", kAddress);
                  const bool isPlaced = isReady && part.open() == PartResult::kOk &&
                                        append(part, "package") && part.place();
                  return isPlaced ? 0 : 1;
              }),
              0);
    EXPECT_EQ(readAll(pathOf("alpha.img")), "package");
}

TEST_F(DownloadPartDeathTest, TakesNoOtherDownloadForTheReasonWhereAForeignFileStays)
{
    if (!canStopCalls()) {
        GTEST_SKIP() << "cannot filter system calls here";
    }
    if (!leaveFile(partOf("alpha"), kNobody, 0600)) {
        GTEST_SKIP() << "cannot give files away here";
    }

    EXPECT_EQ(inChild([] {
                  DownloadPart part("alpha", kAddress);
                  const bool isTold =
                      stopCall(SYS_unlinkat, 0) && part.open() == PartResult::kFailed &&
                      part.failure() == "Stale file handle: somebody removes or replaces " +
                                            pathOf(partOf("alpha"));
                  return isTold ? 0 : 1;
              }),
              0);
}

}  // namespace
