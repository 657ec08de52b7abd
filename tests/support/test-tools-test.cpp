// Files, programs and waiting, as every other test relies on them.

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "support/files.h"
#include "support/process.h"
#include "support/texts.h"
#include "support/wait.h"

namespace quillon::test {
namespace {

TEST(WholeFiles, ReadBackWhatWasWrittenWithTheDirectoriesAbove)
{
    const std::string path = "/opt/media/made/on the way/file";
    const std::string text("line\n\0\xff", 7);

    writeFile(path, "longer than what comes next");
    writeFile(path, text);

    EXPECT_EQ(readAll(path), text);
}

TEST(WholeFiles, AreEmptyWhereThereIsNone)
{
    EXPECT_EQ(readAll("/opt/media/nothing"), "");
    EXPECT_EQ(readAll("/opt/media"), "") << "a directory";
}

TEST(WholeFiles, ThatCannotBeWrittenAreAnErrorWithTheirPath)
{
    try {
        writeFile("/dev/full", "text");
        ADD_FAILURE() << "no error";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "cannot write /dev/full");
    }
}

TEST(Programs, HaveAStatusAndBothOutputs)
{
    const Result result = run({"sh", "-c", "cat; echo out; echo err >&2; exit 3"});

    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(result.out, "out\n");
    EXPECT_EQ(result.err, "err\n");
    EXPECT_EQ(runInShell("kill -TERM $$").status, -SIGTERM);
    EXPECT_THROW(run({"/no/such/program"}), std::runtime_error);
}

TEST(Programs, TakeSignalsAsUsualWhateverTheTestDoes)
{
    ::signal(SIGINT, SIG_IGN);

    EXPECT_EQ(runInShell("kill -INT $$").status, -SIGINT);
}

TEST(Programs, EndWithTheirObject)
{
    const std::string place = "/opt/media/process";
    {
        const Process process({"sh", "-c", "echo $$ >" + place + "; echo started; exec sleep 600"});
        ASSERT_TRUE(process.says("started"));
    }
    EXPECT_EQ(::kill(std::atoi(readAll(place).c_str()), 0), -1);
}

TEST(Programs, OfAShellSucceedOrFailTheTest)
{
    EXPECT_TRUE(succeeds("true"));
    EXPECT_FALSE(succeeds("false"));
    EXPECT_EQ(outputOf("echo out; echo err >&2"), "out\n");
    EXPECT_NONFATAL_FAILURE(outputOf("echo why >&2; false"), "why");
}

TEST(Children, HandBackWhatTheirWorkReturns)
{
    const pid_t parent = ::getpid();

    EXPECT_EQ(inChild([parent] { return ::getppid() == parent ? 42 : 1; }), 42);
    EXPECT_EQ(inChild([] { return ::raise(SIGKILL); }), -SIGKILL);
}

TEST(Children, MayBeAnotherUserOfOtherGroups)
{
    const int status = inChildAs(1234, 2345, {3456}, [] {
        gid_t group = 0;
        const bool isMember = ::getgroups(1, &group) == 1 && group == 3456;
        return isMember && ::geteuid() == 1234 && ::getegid() == 2345 ? 0 : 1;
    });
    if (status == 126) {
        GTEST_SKIP() << "there are no other users here";
    }
    EXPECT_EQ(status, 0);
}

TEST(Waiting, EndsWithTheConditionOrTheLimit)
{
    int looks = 0;

    EXPECT_TRUE(eventually([&looks] { return ++looks == 3; }));
    EXPECT_EQ(looks, 3);
    EXPECT_FALSE(eventually([] { return false; }, std::chrono::milliseconds(20)));
    EXPECT_TRUE(waitFor("nothing", [] { return true; }));
}

TEST(Waiting, ThatIsInVainSaysForWhat)
{
    EXPECT_NONFATAL_FAILURE(EXPECT_FALSE(waitFor(
                                "the end", [] { return false; }, std::chrono::milliseconds(20))),
                            "Waited in vain for the end");
}

}  // namespace
}  // namespace quillon::test
