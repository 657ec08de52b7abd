#include "platform/linux/download-part.h"

#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <optional>

#include "base/fd.h"
#include "download-fixture.h"
#include "support/files.h"
#include "support/texts.h"

namespace {

using quillon::DownloadPart;
using quillon::PartResult;
using quillon::UniqueFd;
using quillon::test::expectTexts;
using quillon::test::readAll;

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

    static bool append(DownloadPart& part, const std::string& text)
    {
        return part.append(text.data(), text.size());
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
    ASSERT_TRUE(inChild([&first] {
        first.reset();
        return true;
    }));

    DownloadPart second("alpha", kAddress);
    EXPECT_EQ(second.open(), PartResult::kBusy);
}

}  // namespace
