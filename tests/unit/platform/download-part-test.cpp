#include "platform/linux/download-part.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <optional>

#include "download-fixture.h"
#include "support/files.h"

namespace {

using quillon::DownloadPart;
using quillon::PartResult;

namespace fs = std::filesystem;

constexpr char kAddress[] = "http://127.0.0.1/";

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

/// Runs something in a forked child.
/// @return whether it said true
template <typename Work>
bool inChild(Work work)
{
    const pid_t child = fork();
    if (child == 0) {
        _exit(work() ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

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

private:
    const uid_t user_ = geteuid();
    fs::perms permissions_ = fs::perms::none;
};

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
    ASSERT_TRUE(inChild([&first] {
        first.reset();
        return true;
    }));

    DownloadPart second("alpha", kAddress);
    EXPECT_EQ(second.open(), PartResult::kBusy);
}

}  // namespace
