#include "medium/mounted-medium.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

#include "process/text-file.h"

namespace fs = std::filesystem;

namespace quillon::bench {
namespace {

constexpr const char* kFolder = "/tmp/shown";
constexpr const char* kPlace = "/opt/media/slow/";
constexpr double kSpeed = 10e6;
constexpr std::size_t kSize = 2000000;  // 0.2 s

double secondsToRead(const std::string& path)
{
    const auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(readFile(path).size(), kSize);
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
}

/// The kernel may take a few pages from the cache again whenever it wants, and read them anew.
auto isOrLittleMore(std::size_t size)
{
    return ::testing::AllOf(::testing::Ge(size), ::testing::Lt(size + kSize / 10));
}

class SlowMedium : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (!fs::exists("/dev/fuse")) {
            GTEST_SKIP() << "this machine has no FUSE";
        }
        fs::create_directories(kFolder);
        writeFile(std::string(kFolder) + "/file", std::string(kSize, 'x'));
    }

    const std::string file = std::string(kPlace) + "file";
    const std::string program = BUILD_FOLDER "/bench/throttled-medium";
};

TEST_F(SlowMedium, TakesItsTimeOnceAndTheCacheNone)
{
    const MountedMedium medium(program, kFolder, kPlace, kSpeed);

    EXPECT_GE(secondsToRead(file), 0.19);
    EXPECT_THAT(medium.use().bytes, isOrLittleMore(kSize));
    EXPECT_NEAR(medium.use().busySeconds, static_cast<double>(medium.use().bytes) / kSpeed, 0.001);

    secondsToRead(file);
    EXPECT_THAT(medium.use().bytes, isOrLittleMore(kSize));
}

TEST_F(SlowMedium, IsReadAgainAfterItWasDroppedFromTheCache)
{
    const MountedMedium medium(program, kFolder, kPlace, kSpeed);
    secondsToRead(file);

    EXPECT_EQ(dropFromCache(file), 0);

    EXPECT_GE(secondsToRead(file), 0.19);
    EXPECT_THAT(medium.use().bytes, isOrLittleMore(2 * kSize));
}

TEST_F(SlowMedium, IsUnmountedAtTheEnd)
{
    {
        const MountedMedium medium(program, kFolder, kPlace, kSpeed);
        EXPECT_TRUE(fs::exists(file));
    }
    EXPECT_FALSE(fs::exists(file));
}

TEST_F(SlowMedium, AFolderThatCannotBeMountedOnIsAnError)
{
    EXPECT_THROW(MountedMedium("/bin/false", kFolder, kPlace, kSpeed), std::runtime_error);
    EXPECT_THROW(dropFromCache("/no/such/file"), std::system_error);
}

}  // namespace
}  // namespace quillon::bench
