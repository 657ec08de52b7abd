// quillon-module check: what is judged, what is shown, and how it ends.

#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <regex>
#include <set>
#include <sstream>

#include "support/files.h"
#include "support/texts.h"
#include "support/wait.h"
#include "unit/tools/module-program.h"

namespace {

namespace fs = std::filesystem;

using quillon::test::expectNoText;
using quillon::test::expectText;
using quillon::test::like;
using quillon::test::readAll;
using quillon::test::Result;

constexpr const char* kManual = QUILLON_SOURCE_DIR "/docs/man/quillon-module.1";

std::vector<std::string> linesOf(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

TEST_F(ModuleCheck, ShowsEachClauseForPeople)
{
    const Result talking = runModule({"check", install("faulty-none", "talks"), "--filter", "s*"});
    EXPECT_EQ(talking.status, 4);
    expectText(talking.out, like("*\n  kept         3  same-version: needs no update to *"));
    expectText(talking.out, like("*\n  not checked  3  stick-update: *\n      give a firmware*"));
    expectText(talking.out,
               like("*\n  BROKEN       5  silent: writes nothing *\n      it writes*"));
    expectText(talking.out, like("*/lantern.so: 5 kept, 1 broken, 0 not offered, 1 not checked\n"));
}

TEST_F(ModuleCheck, ShowsTheBrokenOnesAloneWhereItIsTold)
{
    const Result result =
        runModule({"check", install("faulty-none", "version is empty"), "--only-failed"});
    EXPECT_EQ(result.status, 4);
    expectText(result.out, like("  BROKEN       1  version: *\n      it is empty\n*"));
    expectNoText(result.out, like("*  kept *"));
}

TEST_F(ModuleCheck, JudgesUpToALevel)
{
    const Json::Value module = check({install("faulty-none")}, {"--level", "1"}, 0);
    ASSERT_GT(module["clauses"].size(), 5U);
    for (const Json::Value& clause : module["clauses"]) {
        EXPECT_EQ(clause["level"], 1);
    }
}

TEST_F(ModuleCheck, AsksNothingOfALibraryThatDoesNotLoad)
{
    const Json::Value module = check({install("faulty-missing-symbol")}, {}, 4);
    EXPECT_EQ(clausesOf(module, "broken"), std::vector<std::string>{"symbols"});
    EXPECT_EQ(clauseIn(module, "version")["verdict"], "notChecked");
    EXPECT_EQ(clauseIn(module, "version")["text"], "while \"symbols\" is broken");
}

TEST_F(ModuleCheck, InstallsNothingWithoutAnImage)
{
    const std::string file = install("faulty-none");
    check({file}, {}, 0);
    EXPECT_FALSE(fs::exists(directory + "/lantern.version"));
    check({file}, {"--image", image}, 0);
    EXPECT_TRUE(fs::exists(directory + "/lantern.version"));
}

TEST_F(ModuleCheck, TellsWhatAModuleDoesNotOffer)
{
    const Json::Value module = check({install("faulty-without-time")}, {"--image", image}, 4);
    EXPECT_EQ(clauseIn(module, "honest-time")["verdict"], "notOffered");
    EXPECT_EQ(clauseIn(module, "honest-time")["text"], "it has no entry getExpectedTime");
}

TEST_F(ModuleCheck, InProcessLetsACrashBeOne)
{
    const std::string file = install("faulty-none", "crashes");
    const Result result =
        runModule({"check", file, "--image", image, "--filter", "stick-update", "--in-process"});
    EXPECT_EQ(result.status, -SIGABRT);
    EXPECT_EQ(
        runModule({"check", install("faulty-none"), "--filter", "version", "--in-process"}).status,
        0);
}

TEST_F(ModuleCheck, LeavesNothingRunningOfAModuleThatCrashes)
{
    runModule({"check", install("faulty-none", "leaves a daemon and crashes")});

    std::istringstream daemons(readAll(directory + "/lantern.daemons"));
    int count = 0;
    for (pid_t daemon = 0; daemons >> daemon; ++count) {
        EXPECT_NE(::kill(daemon, 0), 0);
    }
    EXPECT_GT(count, 0);
}

TEST_F(ModuleCheck, LeavesTheProcessesOfItsCallerAlone)
{
    const std::string command = "sleep 1000 & echo $! >" + directory +
                                "/pid; exec " MODULE_PROGRAM " check " + install("faulty-none") +
                                " >/dev/null";

    EXPECT_EQ(quillon::test::runInShell(command).status, 0);

    const auto sleeping = static_cast<pid_t>(std::atol(readAll(directory + "/pid").c_str()));
    EXPECT_EQ(::kill(sleeping, SIGKILL), 0);
}

TEST_F(ModuleCheck, BlamesAModuleThatEndsWhoWaitsForIt)
{
    const Json::Value module =
        check({install("faulty-none", "kills its parent")}, {"--filter", "version"}, 4);

    expectText(clauseIn(module, "version")["text"].asString(),
               like("it ends a process that it has not started*"));
}

TEST_F(ModuleCheck, IsNotHeldUpByAModuleThatStopsWhoWaitsForIt)
{
    check({install("faulty-none", "stops its parent")}, {"--filter", "version"}, 0);
}

TEST_F(ModuleCheck, WritesALogForTheVendor)
{
    const std::string log = directory + "/log";
    runModule({"check", install("faulty-none", "talks"), "--only-failed", "--log", log});
    const std::string text = readAll(log);
    expectText(text, like("quillon-module " QUILLON_VERSION ", 20*Z, Linux *"));
    expectText(text, like("*lantern.so, * bytes\n*"));
    expectText(text, like("*  kept         1  file: *\n      * ms\n*"));
    expectText(text, like("*  BROKEN       5  silent: *\n      | faulty module: asked\n*"));
}

TEST_F(ModuleCheck, SaysWhatItCannotReadOrWrite)
{
    const std::string file = install("faulty-none");
    const Result missing = runModule({"check", directory + "/nothing.so"});
    EXPECT_EQ(missing.status, 3);
    EXPECT_EQ(missing.err, "quillon-module: " + directory + "/nothing.so cannot be read\n");
    EXPECT_EQ(runModule({"check", file, "--image", "/nothing"}).status, 3);
    EXPECT_EQ(runModule({"check", file, "--filter", "file", "--log", "/no/log"}).status, 3);
}

TEST_F(ModuleCheck, SaysWhatIsWrongWithItsCommandLine)
{
    const std::string file = install("faulty-none");
    const std::string other = install("faulty-none", "", "other");
    EXPECT_EQ(runModule({"check"}).status, 2);
    EXPECT_EQ(runModule({"check", file, "--level", "6"}).status, 2);
    EXPECT_EQ(runModule({"check", file, other, "--image", image}).status, 2);
    EXPECT_EQ(runModule({"run-clause", "file"}).status, 2);
    EXPECT_EQ(runModule({"chekc"}).err,
              "quillon-module: unknown verb \"chekc\"; did you mean \"check\"? "
              "(see quillon-module --help)\n");
    expectText(runModule({"check", file, "--filter", "nothing"}).err,
               like("quillon-module: no clause is like \"nothing\" *"));
}

TEST_F(ModuleCheck, EndsWithItsModuleWhenItIsInterrupted)
{
    const std::string file = install("faulty-none", "hangs");
    const auto countProcesses = [] {
        return quillon::test::runInShell(
                   "cat /proc/[0-9]*/cmdline 2>/dev/null | tr '\\0' '\\n' | "
                   "grep -c '^run-claus[e]$'")
            .out;
    };
    ASSERT_EQ(countProcesses(), "0\n");
    quillon::test::Process program({MODULE_PROGRAM, "check", file, "--image", image, "--filter",
                                    "stick-update", "--timeout", "3600"});
    quillon::test::waitFor("the process of the clause", [&] { return countProcesses() == "1\n"; });
    program.kill(SIGTERM);
    EXPECT_EQ(program.wait(), -SIGTERM);
    quillon::test::waitFor("its end", [&] { return countProcesses() == "0\n"; });
}

TEST_F(ModuleCheck, ListsTheClausesThatItsManualPageTells)
{
    const std::string manual = readAll(kManual);
    for (const std::string& line : linesOf(runModule({"check", "--list"}).out)) {
        std::smatch parts;
        ASSERT_TRUE(std::regex_match(line, parts, std::regex("([1-5])  ([a-z-]+) +(.*)"))) << line;
        expectText(manual, like("*\n.It Cm " + parts[2].str() + " Pq " + parts[1].str() + "\n*"));
    }
    for (const char* code : {"0", "2", "3", "4"}) {
        expectText(manual, like("*\n.It " + std::string(code) + "\n*"));
    }
}

TEST_F(ModuleCheck, HasEachOptionInItsManualPage)
{
    const std::string help = runModule({"check", "--help"}).out;
    const std::string manual = readAll(kManual);
    const std::regex option("--([a-z-]+)");
    std::set<std::string> names;
    const std::string options = help.substr(help.find("Options:"));
    for (const std::string& line : linesOf(options)) {
        std::smatch parts;
        if (std::regex_search(line, parts, std::regex("^ .*?--([a-z-]+)"))) {
            names.insert(parts[1]);
        }
    }
    EXPECT_EQ(names.size(), 12U) << help;
    for (const std::string& name : names) {
        if (name != "help") {
            expectText(manual, like("*\n.It Fl -" + name + "*"));
        }
    }
}

}  // namespace
