#include "helpers/lifecycle/taken-name.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <thread>

namespace {

namespace fs = std::filesystem;
using namespace quillon::unit;

constexpr char kName[] = "/tmp/marker";
constexpr char kVictim[] = "/tmp/victim";

class TakenName : public testing::Test
{
protected:
    TakenName() { umask(0077); }

    static bool isOurFile()
    {
        struct stat status = {};
        return lstat(kName, &status) == 0 && S_ISREG(status.st_mode) &&
               (status.st_mode & 07777) == 0644 && status.st_uid == geteuid() &&
               status.st_size == 0;
    }

    static void putOurFile() { putFile(kName, geteuid(), getegid()); }

    static std::size_t directoriesSetAside()
    {
        std::size_t count = 0;
        for (const auto& entry : fs::directory_iterator("/tmp")) {
            count += entry.path().filename().string().rfind(".quillon-", 0) == 0 ? 1 : 0;
        }
        return count;
    }
};

TEST_F(TakenName, GetsAnEmptyFileThatEverybodyMayRead)
{
    putOurFile();

    EXPECT_TRUE(isOurFile());
    EXPECT_EQ(directoriesSetAside(), 0U);
}

TEST_F(TakenName, LosesTheFileThatWasThere)
{
    std::ofstream(kName) << "somebody else's";

    putOurFile();

    EXPECT_TRUE(isOurFile());
    EXPECT_EQ(directoriesSetAside(), 0U);
}

TEST_F(TakenName, LosesALinkWithoutAnybodyFollowingIt)
{
    std::ofstream(kVictim) << "kept";
    fs::create_symlink(kVictim, kName);

    putOurFile();

    EXPECT_TRUE(isOurFile());
    EXPECT_EQ(fs::file_size(kVictim), 4U);
}

TEST_F(TakenName, LosesAFifoWithoutAnybodyWaitingForAReader)
{
    ASSERT_EQ(mkfifo(kName, 0600), 0);

    putOurFile();

    EXPECT_TRUE(isOurFile());
}

TEST_F(TakenName, LosesAnEmptyDirectory)
{
    fs::create_directory(kName);

    putOurFile();

    EXPECT_TRUE(isOurFile());
    EXPECT_EQ(directoriesSetAside(), 0U);
}

TEST_F(TakenName, LosesADirectoryWithSomethingInItWhichIsSetAside)
{
    fs::create_directories(kName + std::string("/deep/deeper"));

    putOurFile();

    EXPECT_TRUE(isOurFile());
    EXPECT_EQ(directoriesSetAside(), 1U);
}

TEST_F(TakenName, IsOursWhateverSomebodyElseDoesToItMeanwhile)
{
    std::atomic<bool> isOver{false};
    std::thread somebodyElse([&] {
        while (!isOver) {
            std::error_code ignored;
            fs::create_directories(kName + std::string("/deep"), ignored);
            fs::remove_all(kName, ignored);
        }
    });
    for (int round = 0; round < 200; ++round) {
        EXPECT_NO_THROW(putOurFile());
    }
    isOver = true;
    somebodyElse.join();
}

TEST_F(TakenName, WithADeadLinkDoesNotExistAndCannotBeMade)
{
    putOurFile();

    putDeadLink(kName, "/nonexistent/anything", geteuid(), getegid());

    EXPECT_FALSE(fs::exists(kName));
    EXPECT_TRUE(fs::is_symlink(kName));
    EXPECT_NE(mkdir(kName, 0700), 0);
}

TEST_F(TakenName, IsFreeAgainWhenCleared)
{
    for (const bool asDirectory : {false, true}) {
        if (asDirectory) {
            fs::create_directories(kName + std::string("/deep"));
        } else {
            putDeadLink(kName, "/nonexistent/anything", geteuid(), getegid());
        }
        clear(kName);
        EXPECT_FALSE(fs::is_symlink(kName) || fs::exists(kName));
    }
}

TEST_F(TakenName, MayBeFreeAlreadyWhenCleared)
{
    EXPECT_NO_THROW(clear(kName));
}

TEST_F(TakenName, InADirectoryThatIsNotThereIsAnError)
{
    EXPECT_THROW(putFile("/tmp/nowhere/marker", geteuid(), getegid()), std::system_error);
}

}  // namespace
