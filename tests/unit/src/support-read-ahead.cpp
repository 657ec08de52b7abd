// What is read from a slow medium while it would else wait.

#include "support/read-ahead.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <iterator>
#include <string>
#include <vector>

#include "base/fd.h"
#include "support/files.h"
#include "support/wait.h"

namespace quillon::test {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMiB = 1U << 20U;

// Files on the disk that the build directory is on, none of them in the page cache.
class FilesAhead : public ::testing::Test
{
protected:
    void SetUp() override
    {
        directory_ = BUILD_DIRECTORY "/read-ahead-XXXXXX";
        ASSERT_NE(mkdtemp(directory_.data()), nullptr);
        for (const char* name : {"/a", "/b", "/c"}) {
            paths_.push_back(directory_ + name);
            write(paths_.back());
        }
        if (cached(paths_[0]) != 0) {
            GTEST_SKIP() << "the build directory's files cannot leave the memory";
        }
    }

    void TearDown() override { fs::remove_all(directory_); }

    static void write(const std::string& path)
    {
        const UniqueFd file(open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
        const std::string content(kSize, 'x');
        ASSERT_EQ(::write(file.get(), content.data(), kSize), static_cast<ssize_t>(kSize));
        ASSERT_EQ(fsync(file.get()), 0);
        ASSERT_EQ(posix_fadvise(file.get(), 0, 0, POSIX_FADV_DONTNEED), 0);
    }

    /// @return how many bytes of the file are in the page cache
    static std::size_t cached(const std::string& path)
    {
        const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
        void* const memory = mmap(nullptr, kSize, PROT_READ, MAP_SHARED, file.get(), 0);
        const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        std::vector<unsigned char> present(kSize / page);
        EXPECT_EQ(mincore(memory, kSize, present.data()), 0);
        EXPECT_EQ(munmap(memory, kSize), 0);
        return page * static_cast<std::size_t>(
                          std::count_if(present.begin(), present.end(),
                                        [](unsigned char one) { return (one & 1U) != 0; }));
    }

    static void awaitCached(const std::string& path, std::size_t bytes)
    {
        waitFor(path + " in the page cache", [&] { return cached(path) >= bytes; });
    }

    /// Reading from a disk is no sleep: a signal would not end it.
    static bool othersSleep()
    {
        const fs::directory_iterator threads("/proc/self/task");
        return std::all_of(begin(threads), end(threads), [](const fs::directory_entry& thread) {
            const std::string status = readAll(thread.path() / "status");
            return thread.path().filename() == std::to_string(gettid()) || status.empty() ||
                   status.find("\nState:\tS") != std::string::npos;
        });
    }

    static constexpr std::size_t kSize = 4 * kMiB;
    std::string directory_;
    std::vector<std::string> paths_;
};

TEST_F(FilesAhead, AreReadUpToTheLastOne)
{
    const ReadAhead ahead(paths_);
    awaitCached(paths_[1], kSize);
    awaitCached(paths_[2], kSize);
    EXPECT_EQ(cached(paths_[0]), 0U) << "whoever reads it does that";
}

TEST_F(FilesAhead, AreReadWhereNothingButProcessesIsSeenInProc)
{
    if (mount("proc", "/proc", "proc", 0, "subset=pid") != 0) {
        GTEST_SKIP() << "no such file system can be mounted here";
    }
    ASSERT_FALSE(fs::exists("/proc/meminfo"));
    const ReadAhead ahead(paths_);
    awaitCached(paths_[2], kSize);
}

TEST_F(FilesAhead, StayOnTheMediumBehindTheWindow)
{
    const ReadAhead ahead(paths_, kMiB);
    awaitCached(paths_[1], kMiB);
    waitFor("every other thread to sleep or end", [] { return othersSleep(); });
    EXPECT_EQ(cached(paths_[2]), 0U) << "the kernel itself reads on, but within a file";
}

TEST_F(FilesAhead, FollowWhoeverReads)
{
    ReadAhead ahead(paths_, kMiB);
    awaitCached(paths_[1], kMiB);
    ahead.reach(1);
    awaitCached(paths_[2], kMiB);
}

TEST_F(FilesAhead, AreLeftOutWhenWhoeverReadsHasReachedThem)
{
    {
        ReadAhead ahead(paths_, 0);
        ahead.reach(2);
    }
    EXPECT_EQ(cached(paths_[1]), 0U);
    EXPECT_EQ(cached(paths_[2]), 0U);
}

TEST_F(FilesAhead, NeedNoThreadWhenThereIsOne)
{
    const ReadAhead ahead({"", paths_[0], ""});
    const fs::directory_iterator threads("/proc/self/task");
    EXPECT_EQ(std::distance(begin(threads), end(threads)), 1);
}

TEST_F(FilesAhead, AreFoundBehindWhatIsNone)
{
    const std::string fifo = directory_ + "/fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const ReadAhead ahead({directory_ + "/missing", "", directory_, fifo, paths_[2]});
    awaitCached(paths_[2], kSize);

    EXPECT_EQ(open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC), -1);
    EXPECT_EQ(errno, ENXIO) << "somebody has the FIFO open";
}

TEST_F(FilesAhead, LeaveErrnoAlone)
{
    errno = ETOOMANYREFS;
    {
        ReadAhead ahead(paths_);
        ahead.reach(2);
    }
    EXPECT_EQ(errno, ETOOMANYREFS);
}

}  // namespace
}  // namespace quillon::test
