#include "base/mappings.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <optional>
#include <string>

#include "base/fd.h"
#include "support/process.h"
#include "support/threaded-process.h"

namespace quillon {
namespace {

using test::ThreadedProcess;

class Mappings : public testing::Test
{
protected:
    Mappings()
    {
        EXPECT_EQ(ftruncate(file_.get(), 1), 0);
        EXPECT_EQ(fstat(file_.get(), &status_), 0);
    }

    bool map() const
    {
        return mmap(nullptr, 1, PROT_READ, MAP_SHARED, file_.get(), 0) != MAP_FAILED;
    }

    Mapping of(pid_t process) const { return mappingOf(process, status_); }

    struct stat status_ = {};

private:
    UniqueFd file_{open("/dev/shm", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600)};
};

TEST_F(Mappings, AreSeenInAProcess)
{
    EXPECT_EQ(of(getpid()), Mapping::kNone);
    ASSERT_TRUE(map());
    EXPECT_EQ(of(getpid()), Mapping::kHas);
}

TEST_F(Mappings, AreSeenInAProcessWhoseMainThreadHasEnded)
{
    const ThreadedProcess with([&] { return map(); });
    const ThreadedProcess without([] { return true; });
    ASSERT_TRUE(with.isAtWork());
    ASSERT_TRUE(without.isAtWork());

    EXPECT_EQ(of(with.process()), Mapping::kHas);
    EXPECT_EQ(of(without.process()), Mapping::kNone);
}

TEST_F(Mappings, EndWithTheProcess)
{
    ASSERT_TRUE(map());
    const pid_t process = fork();
    if (process == 0) {
        _exit(0);
    }
    siginfo_t info = {};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(process), &info, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(of(process), Mapping::kNone) << "nobody has waited for it yet";

    ASSERT_EQ(waitpid(process, nullptr, 0), process);
    EXPECT_EQ(of(process), Mapping::kNone);
}

TEST_F(Mappings, EndWithTheProcessWhileTheyAreRead)
{
    for (int i = 0; i < 1000; ++i) {  // more than the kernel hands out at once
        const int access = i % 2 == 0 ? PROT_READ : PROT_NONE;
        ASSERT_NE(mmap(nullptr, 1, access, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0), MAP_FAILED);
    }
    const pid_t process = fork();
    if (process == 0) {
        for (;;) {
            pause();
        }
    }
    std::ifstream maps("/proc/" + std::to_string(process) + "/maps");
    std::string line;
    ASSERT_TRUE(std::getline(maps, line));
    ASSERT_EQ(kill(process, SIGKILL), 0);
    ASSERT_EQ(waitpid(process, nullptr, 0), process);

    EXPECT_EQ(mappingIn(maps, status_), std::nullopt);
}

TEST_F(Mappings, OfAnotherUserAreHidden)
{
    const pid_t parent = getpid();
    const int status = test::inChildAs(
        1234, 1234, {}, [this, parent] { return of(parent) == Mapping::kHidden ? 0 : 1; });
    if (status == 126) {
        GTEST_SKIP() << "there are no other users here";
    }
    EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace quillon
