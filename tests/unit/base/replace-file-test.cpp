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

}  // namespace
}  // namespace quillon
