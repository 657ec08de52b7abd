// Opening a file only when it is a regular one, and telling whether it is still the same.

#include "base/fd.h"
#include "base/regular-file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <functional>
#include <string>

#include "support/device.h"

namespace quillon::test {
namespace {

const std::string kPath = "/opt/media/file";

TEST(OpenRegularFile, GivesAStreamFromTheFirstByteOn)
{
    writeFile(kPath, "text");
    struct stat opened = {};

    const UniqueFile file = openRegularStream(kPath, opened);

    ASSERT_NE(file, nullptr);
    EXPECT_EQ(std::fgetc(file.get()), 't');
    EXPECT_EQ(opened.st_size, 4);
    EXPECT_TRUE(S_ISREG(opened.st_mode));
}

TEST(OpenRegularFile, GivesAStreamThatReadsNoMoreThanItIsAskedFor)
{
    writeFile(kPath, std::string(100000, 'x'));
    struct stat opened = {};
    const UniqueFile file = openRegularStream(kPath, opened);
    std::array<char, 16> iv{};

    ASSERT_EQ(std::fread(iv.data(), 1, iv.size(), file.get()), iv.size());

    EXPECT_EQ(lseek(fileno(file.get()), 0, SEEK_CUR), 16);
}

TEST(OpenRegularFile, GivesNothingForAMissingFile)
{
    struct stat opened = {};

    EXPECT_EQ(openRegularStream(kPath, opened), nullptr);
    EXPECT_EQ(openRegularStream("", opened), nullptr);
}

TEST(OpenRegularFile, DoesNotEvenOpenAFifo)
{
    ASSERT_EQ(mkfifo(kPath.c_str(), 0666), 0);
    const UniqueFd watch(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    ASSERT_NE(inotify_add_watch(watch.get(), kPath.c_str(), IN_OPEN), -1);
    struct stat opened = {};

    EXPECT_EQ(openRegularStream(kPath, opened), nullptr);

    char event[1024];
    EXPECT_EQ(read(watch.get(), event, sizeof(event)), -1) << "somebody would have been woken";
}

TEST(OpenRegularFile, KeepsItsDescriptorFromChildren)
{
    writeFile(kPath, "text");
    struct stat opened = {};

    const UniqueFile file = openRegularStream(kPath, opened);

    ASSERT_NE(file, nullptr);
    EXPECT_EQ(fcntl(fileno(file.get()), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST(OpenRegularFile, ClosesItWithTheStream)
{
    writeFile(kPath, "text");
    const int before = openDescriptors();
    struct stat opened = {};

    UniqueFile file = openRegularStream(kPath, opened);
    EXPECT_EQ(openDescriptors(), before + 1);
    file.reset();

    EXPECT_EQ(openDescriptors(), before);
}

class SameFile : public ::testing::Test
{
protected:
    SameFile()
    {
        writeFile(kPath, "text");
        EXPECT_EQ(stat(kPath.c_str(), &opened), 0);
    }

    struct stat opened = {};
};

TEST_F(SameFile, IsTheOneThatWasOpened)
{
    EXPECT_TRUE(isStillSameFile(kPath, opened));
}

TEST_F(SameFile, IsStillItThroughALink)
{
    ASSERT_EQ(symlink(kPath.c_str(), "/opt/media/link"), 0);

    EXPECT_TRUE(isStillSameFile("/opt/media/link", opened));
}

TEST_F(SameFile, IsNoneWhereNothingIs)
{
    EXPECT_FALSE(isStillSameFile("/opt/media/none", opened));
}

TEST_F(SameFile, DiffersInDeviceInodeSizeOrEitherTime)
{
    const std::pair<const char*, std::function<void(struct stat&)>> differences[] = {
        {"device", [](struct stat& s) { ++s.st_dev; }},
        {"inode", [](struct stat& s) { ++s.st_ino; }},
        {"size", [](struct stat& s) { ++s.st_size; }},
        {"seconds of the contents", [](struct stat& s) { ++s.st_mtim.tv_sec; }},
        {"nanoseconds of the contents", [](struct stat& s) { ++s.st_mtim.tv_nsec; }},
        {"seconds of the inode", [](struct stat& s) { ++s.st_ctim.tv_sec; }},
        {"nanoseconds of the inode", [](struct stat& s) { ++s.st_ctim.tv_nsec; }},
    };
    for (const auto& [what, change] : differences) {
        struct stat other = opened;
        change(other);
        EXPECT_FALSE(isStillSameFile(kPath, other)) << what;
    }
}

}  // namespace
}  // namespace quillon::test
