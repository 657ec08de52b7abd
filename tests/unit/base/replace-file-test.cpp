#include "base/replace-file.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <set>
#include <string>

#include "support/files.h"
#include "support/process.h"

namespace {

/// What a process does when it brings a file to the disk.
void (*atSync)() = [] {};

}  // namespace

extern "C" int fsync(int file)
{
    atSync();
    return fdatasync(file);
}

namespace quillon {
namespace {

namespace fs = std::filesystem;
using test::inChild;
using test::readAll;
using test::writeFile;

constexpr const char* kDirectory = "/run/replaced";

SecretBytes bytesOf(const std::string& text)
{
    return SecretBytes(text.begin(), text.end());
}

void allowFilesOf(rlim_t bytes)
{
    const rlimit limit = {bytes, RLIM_INFINITY};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
}

bool isBlocked(int signal)
{
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    return sigismember(&blocked, signal) == 1;
}

class ReplaceFile : public testing::Test
{
protected:
    ReplaceFile() { fs::create_directories(kDirectory); }

    static std::string pathOf(const std::string& name) { return kDirectory + ("/" + name); }

    static std::set<std::string> names()
    {
        std::set<std::string> found;
        for (const fs::directory_entry& entry : fs::directory_iterator(kDirectory)) {
            found.insert(entry.path().filename());
        }
        return found;
    }
};

TEST_F(ReplaceFile, LeavesTheOldOneWhereAFileMayGrowNoFurther)
{
    writeFile(pathOf("file"), "old");

    EXPECT_EQ(inChild([] {
                  allowFilesOf(4);
                  const bool isReplaced = replaceFile(kDirectory, "file", bytesOf("too long"));
                  return !isReplaced && errno == EFBIG && !isBlocked(SIGXFSZ) ? 0 : 1;
              }),
              0);

    EXPECT_EQ(readAll(pathOf("file")), "old");
    EXPECT_EQ(names(), std::set<std::string>{"file"});
}

/// Writes the file in a process that is killed before it is in place.
void beKilledWriting()
{
    EXPECT_EQ(inChild([] {
                  atSync = [] { raise(SIGKILL); };
                  return replaceFile(kDirectory, "file", bytesOf("half")) ? 0 : 1;
              }),
              -SIGKILL);
}

TEST_F(ReplaceFile, RemovesWhatAKilledWriterHasLeft)
{
    beKilledWriting();
    beKilledWriting();
    EXPECT_EQ(names().size(), 1U) << "the second one has removed what the first one has left";

    EXPECT_TRUE(replaceFile(kDirectory, "file", bytesOf("new")));

    EXPECT_EQ(names(), std::set<std::string>{"file"});
    EXPECT_EQ(readAll(pathOf("file")), "new");
}

TEST_F(ReplaceFile, LeavesTheFileOfAnotherWriterAlone)
{
    EXPECT_EQ(inChild([] {
                  atSync = [] {
                      atSync = [] {};
                      inChild([] { return replaceFile(kDirectory, "file", bytesOf("b")) ? 0 : 1; });
                  };
                  return replaceFile(kDirectory, "file", bytesOf("a")) ? 0 : 1;
              }),
              0);

    EXPECT_EQ(names(), std::set<std::string>{"file"});
    EXPECT_EQ(readAll(pathOf("file")), "a") << "the one that was in place last";
}

TEST_F(ReplaceFile, LeavesAloneWhatOthersCallAlmostTheSame)
{
    const std::set<std::string> others = {".file.new",         ".file.new-short",
                                          ".file.new-toolong", ".file.new-a.b.c.d",
                                          ".fil.new-abcdef",   "file.new-abcdef"};
    for (const std::string& name : others) {
        writeFile(pathOf(name), "theirs");
    }
    fs::create_directory(pathOf(".file.new-direct"));
    fs::create_symlink("/run/nowhere", pathOf(".file.new-asLink"));
    ASSERT_EQ(mkfifo(pathOf(".file.new-asFifo").c_str(), 0600), 0);
    const std::set<std::string> before = names();

    EXPECT_TRUE(replaceFile(kDirectory, "other", bytesOf("new")));
    EXPECT_TRUE(replaceFile(kDirectory, "file", bytesOf("new")));

    std::set<std::string> expected = before;
    expected.insert({"file", "other"});
    EXPECT_EQ(names(), expected);
}

TEST_F(ReplaceFile, LeavesTheFilesOfOtherUsersAlone)
{
    writeFile(pathOf(".file.new-abcdef"), "theirs");
    if (chown(pathOf(".file.new-abcdef").c_str(), 1234, 1234) != 0) {
        GTEST_SKIP() << "root alone can give files away";
    }

    EXPECT_TRUE(replaceFile(kDirectory, "file", bytesOf("new")));

    EXPECT_TRUE(fs::exists(pathOf(".file.new-abcdef")));
}

}  // namespace
}  // namespace quillon
