#include "base/piped-program.h"
#include "base/fd.h"
#include "base/secret-bytes.h"
#include "support/texts.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <thread>

using namespace std::chrono_literals;

namespace quillon {
namespace {

using quillon::test::expectText;
using quillon::test::like;

class PipedProgram : public testing::Test
{
protected:
    std::string run(const std::string& script, const std::string& text = "",
                    std::chrono::milliseconds longest = 20s, std::size_t limit = 100000)
    {
        const ProgramCall call{"/bin/sh", {"/bin/sh", "-c", script}, {}, {}, limit, longest};
        return run(call, text);
    }

    /// @return why it failed and, behind a colon, what it complained about
    std::string run(const ProgramCall& call, const std::string& text = "")
    {
        const SecretBytes input(text.begin(), text.end());
        const ProgramEnd end = runPiped(call, input, bytes);
        complaint = end.complaint;
        return end.failure.empty() || complaint.empty() ? end.failure
                                                        : end.failure + ": " + complaint;
    }

    std::string output() const { return {bytes.begin(), bytes.end()}; }

    SecretBytes bytes;
    std::string complaint;
};

TEST_F(PipedProgram, GetsItsInputAndGivesItsOutput)
{
    EXPECT_EQ(run("cat", "some text"), "");
    EXPECT_EQ(output(), "some text");
    EXPECT_EQ(run("cat"), "");
    EXPECT_EQ(output(), "");
}

TEST_F(PipedProgram, PassesMoreThanAnyPipeHolds)
{
    const std::string much(2000000, 'x');
    EXPECT_EQ(run("cat", much, 20s, much.size()), "");
    EXPECT_EQ(output(), much);
}

TEST_F(PipedProgram, HasNoEnvironmentAndNoDescriptorsOfOurs)
{
    setenv("SECRET", "key", 1);
    EXPECT_EQ(run({"/usr/bin/env", {"env"}, {}, {}, 100, 20s}), "");
    EXPECT_EQ(output(), "");
    const UniqueFd left(dup(0));
    EXPECT_EQ(run("for n in 3 4 5 6 7 8 9; do [ -e /proc/self/fd/$n ] && echo $n; done; true"), "");
    EXPECT_EQ(output(), "");
}

TEST_F(PipedProgram, HasTheNameTheEnvironmentAndTheDirectoryThatItIsGiven)
{
    const char* script = "echo \"$0 $ONE $TWO\"; pwd";
    EXPECT_EQ(run({"/bin/sh", {"sh", "-c", script, "name"}, {"ONE=1", "TWO=2"}, "/run", 100, 20s}),
              "");
    EXPECT_EQ(output(), "name 1 2\n/run\n");
    EXPECT_EQ(run({"/bin/sh", {"sh", "-c", script}, {}, "/no/such/directory", 100, 20s}),
              "/bin/sh cannot be started: No such file or directory");
}

TEST_F(PipedProgram, MayHaveItsOutputThrownAway)
{
    EXPECT_EQ(run({"/bin/sh",
                   {"sh", "-c", "[ /proc/self/fd/1 -ef /dev/null ] && echo away >&2; cat"},
                   {},
                   {},
                   {},
                   20s},
                  std::string(2000000, 'x')),
              "");
    EXPECT_EQ(output(), "");
    EXPECT_EQ(complaint, "away\n");
}

TEST_F(PipedProgram, StaysInThisProcessesGroupUnlessItMayBeKilled)
{
    const char* script = "cut -d ' ' -f 5 /proc/$$/stat";
    const std::string ours = std::to_string(getpgrp()) + "\n";
    EXPECT_EQ(run({"/bin/sh", {"sh", "-c", script}, {"PATH=/bin:/usr/bin"}, {}, 100, {}}), "");
    EXPECT_EQ(output(), ours);
    EXPECT_EQ(run({"/bin/sh", {"sh", "-c", script}, {"PATH=/bin:/usr/bin"}, {}, 100, 20s}), "");
    EXPECT_NE(output(), ours);
}

TEST_F(PipedProgram, SaysWhyItFailed)
{
    bytes = {'o', 'l', 'd'};
    EXPECT_EQ(run("echo output; echo first >&2; echo second >&2; exit 3"),
              "/bin/sh failed with status 3: first\nsecond\n");
    EXPECT_EQ(output(), "old");
    EXPECT_EQ(run("kill -9 $$"), "/bin/sh was ended by signal 9");
    expectText(run({"/no/such/program", {"program"}, {}, {}, 100, 20s}),
               like("*/no/such/program cannot be started: No such file or directory"));
}

TEST_F(PipedProgram, HasItsComplaintsCutDownToTheLast)
{
    const std::string reason =
        run("head -c 100000 /dev/zero | tr '\\0' x >&2; echo at last >&2; exit 1");
    expectText(reason, like("/bin/sh failed with status 1: xxx*"));
    expectText(reason, like("*xxxat last\n"));
    EXPECT_LT(reason.size(), 500U);
}

TEST_F(PipedProgram, MayLeaveItsInputUnread)
{
    EXPECT_EQ(run("exec <&-; echo done", std::string(2000000, 'x')), "");
    EXPECT_EQ(output(), "done\n");
}

TEST_F(PipedProgram, IsKilledWhenItTakesTooLong)
{
    const auto began = std::chrono::steady_clock::now();
    EXPECT_EQ(run("echo waiting >&2; sleep 60 & sleep 60", "", 200ms),
              "/bin/sh is not done after 200 ms: waiting\n");
    EXPECT_EQ(run("exec >&- 2>&-; sleep 60", "", 200ms), "/bin/sh is not done after 200 ms");
    EXPECT_LT(std::chrono::steady_clock::now() - began, 10s);
}

TEST_F(PipedProgram, LeavesNoChildrenBehindWhenItIsKilled)
{
    const std::string left = "/run/quillon/left-behind";
    EXPECT_NE(run("(sleep 0.5; touch " + left + ") & sleep 60", "", 100ms), "");
    std::this_thread::sleep_for(800ms);
    EXPECT_NE(access(left.c_str(), F_OK), 0);
}

TEST_F(PipedProgram, IsDoneWhenItHasEndedWhateverItHasStarted)
{
    EXPECT_EQ(run("sleep 60 & echo done"), "");
    EXPECT_EQ(output(), "done\n");
    EXPECT_EQ(run("sleep 60 & echo why >&2; exit 3"), "/bin/sh failed with status 3: why\n");
}

TEST_F(PipedProgram, IsKilledWhenItWritesTooMuch)
{
    EXPECT_EQ(run("head -c 10 /dev/zero", "", 20s, 10), "");
    EXPECT_EQ(run("head -c 11 /dev/zero", "", 20s, 10), "/bin/sh writes more than 10 bytes");
    EXPECT_EQ(run("cat /dev/zero", "", 20s, 1000), "/bin/sh writes more than 1000 bytes");
}

TEST_F(PipedProgram, TakesSignalsAsUsualWhateverThisProcessDoes)
{
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, nullptr);
    EXPECT_EQ(run("kill -TERM $$; sleep 60"), "/bin/sh was ended by signal 15");
    EXPECT_EQ(run("kill -PIPE $$; sleep 60"), "/bin/sh was ended by signal 13");
}

TEST_F(PipedProgram, RunsInAProcessWithoutStandardStreams)
{
    const UniqueFd input(dup(0));
    const UniqueFd output1(dup(1));
    const UniqueFd output2(dup(2));
    close(0);
    close(1);
    close(2);
    const std::string reason = run("cat; echo more >&2; exit 3", "text");
    const std::string fine = run("cat", "text");
    dup2(input.get(), 0);
    dup2(output1.get(), 1);
    dup2(output2.get(), 2);
    EXPECT_EQ(reason, "/bin/sh failed with status 3: more\n");
    EXPECT_EQ(fine, "");
    EXPECT_EQ(output(), "text");
}

}  // namespace
}  // namespace quillon
