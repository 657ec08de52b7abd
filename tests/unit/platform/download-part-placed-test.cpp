// A part that becomes a package while the next download looks at it.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "platform/linux/download-part.h"
#include "support/files.h"

namespace {

std::function<void()> g_beforeLooking;

}  // namespace

/// In front of the system's in this whole program, so that a test can come between opening a part
/// and looking at it, once.
extern "C" int fstat(int file, struct stat* status) noexcept
{
    if (const auto act = std::exchange(g_beforeLooking, nullptr)) {
        act();
    }
    return fstatat(file, "", status, AT_EMPTY_PATH);
}

namespace quillon::test {
namespace {

namespace fs = std::filesystem;

constexpr char kAddress[] = "http://127.0.0.1/";
const std::string kDirectory = "/opt/usr/apps/appbinarymanager/";
const std::string kPackage = kDirectory + "alpha.img";
const std::string kPart = kDirectory + ".alpha." + std::to_string(geteuid()) + ".part";

class PlacedDownloadPart : public testing::Test
{
protected:
    static void removeAll()
    {
        fs::remove(kPackage);
        fs::remove(kPart);
    }

    void SetUp() override
    {
        fs::create_directories(kDirectory);
        removeAll();
    }
    void TearDown() override
    {
        umask(umask_);
        removeAll();
    }

    static bool append(DownloadPart& part, const std::string& text)
    {
        return part.append(text.data(), text.size());
    }

private:
    const mode_t umask_ = umask(022);
};

TEST_F(PlacedDownloadPart, IsNotTakenForTheNextPart)
{
    std::optional<DownloadPart> first(std::in_place, "alpha", kAddress);
    ASSERT_EQ(first->open(), PartResult::kOk);
    ASSERT_TRUE(append(*first, "package"));
    DownloadPart third("alpha", kAddress);
    g_beforeLooking = [&] {
        EXPECT_TRUE(first->place());
        first.reset();
        EXPECT_EQ(third.open(), PartResult::kOk);
        EXPECT_TRUE(append(third, "a part"));
    };

    DownloadPart second("alpha", kAddress);
    EXPECT_EQ(second.open(), PartResult::kBusy);

    EXPECT_EQ(readAll(kPart), "a part");
    struct stat status = {};
    EXPECT_EQ(stat(kPackage.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & ALLPERMS, 0644U);
}

}  // namespace
}  // namespace quillon::test
