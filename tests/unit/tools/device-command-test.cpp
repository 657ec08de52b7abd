#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <regex>

#include "support/files.h"
#include "support/texts.h"
#include "unit/tools/device-program.h"

using namespace quillon::test;

namespace {

bool isOneLine(const std::string& text)
{
    return std::count(text.begin(), text.end(), '\n') == 1 && text.back() == '\n';
}

}  // namespace

TEST(DeviceCommand, PassesTheExitStatusOn)
{
    EXPECT_EQ(runScript("exit 0").status, 0);
    EXPECT_EQ(runScript("exit 7").status, 7);
    EXPECT_EQ(runScript("exit 255").status, 255);
}

TEST(DeviceCommand, ReportsADeadlySignalAs128AndItsNumber)
{
    EXPECT_EQ(runScript("kill -KILL $$").status, 128 + SIGKILL);
    EXPECT_EQ(runScript("kill -SEGV $$").status, 128 + SIGSEGV);
}

TEST(DeviceCommand, SaysThatACommandIsNotFound)
{
    const Result result = runDevice({"run", "--", "/no/such/command"});

    EXPECT_EQ(result.status, 127);
    expectText(result.err, like("*quillon-device: /no/such/command: No such file*"));
}

TEST(DeviceCommand, SaysThatACommandCannotBeRun)
{
    const Result result = runDevice({"run", "--", "/etc/passwd"});

    EXPECT_EQ(result.status, 126);
    expectText(result.err, like("*quillon-device: /etc/passwd: Permission denied*"));
}

TEST(DeviceCommand, PassesArgumentsOnUnchanged)
{
    const Result result =
        runDevice({"run", "--", "printf", "<%s>", "", "two words", "--help", "--", "$HOME"});

    EXPECT_EQ(result.out, "<><two words><--help><--><$HOME>");
}

TEST(DeviceCommand, PassesTheEnvironmentOnAndAddsTheWay)
{
    const Result result =
        run({"env", "QUILLON_TEST_VARIABLE=as it was", deviceProgram(), "run", "--", "sh", "-c",
             "echo \"$QUILLON_TEST_VARIABLE, $QUILLON_DEVICE\""});

    EXPECT_THAT(result.out, testing::MatchesRegex("as it was, (root|user|in-place)\n"));
}

TEST(DeviceCommand, KeepsTheWorkingDirectory)
{
    const std::filesystem::path before = std::filesystem::current_path();
    for (const char* directory : {"/", "/usr/share", "/tmp", "/home"}) {
        std::filesystem::current_path(directory);
        EXPECT_EQ(runScript("pwd -P").out, std::string(directory) + "\n");
    }
    std::filesystem::current_path(before);
}

TEST(DeviceCommand, RefusesAWorkingDirectoryThatWouldNotExistInside)
{
    if (!hasPrivateDevice()) {
        GTEST_SKIP() << "in place, every directory exists";
    }
    const std::filesystem::path before = std::filesystem::current_path();
    const std::string directory = "/dev/shm/" + uniqueWord();
    std::filesystem::create_directory(directory);
    std::filesystem::current_path(directory);

    const Result result = runScript("echo ran");

    std::filesystem::current_path(before);
    std::filesystem::remove(directory);
    EXPECT_EQ(result.status, 125);
    EXPECT_EQ(result.err, "quillon-device: no device: the working directory " + directory +
                              " would not exist inside\n");
    EXPECT_EQ(result.out, "");
}

TEST(DeviceCommand, WorksWithClosedStandardStreams)
{
    const Result result =
        run({"sh", "-c", deviceProgram() + " run -- sh -c 'exit 5' <&- >&- 2>&-"});

    EXPECT_EQ(result.status, 5);
}

TEST(DeviceCommand, LeavesAClosedStandardInputClosed)
{
    const Result result = run(
        {"sh", "-c", deviceProgram() + " run -- sh -c 'readlink /proc/self/fd/0 || echo no' <&-"});

    EXPECT_EQ(result.out, "no\n");
}

TEST(DeviceCommand, PassesASignalOnToTheCommand)
{
    for (const char* name : {"TERM", "INT", "HUP", "USR1"}) {
        const std::string script =
            std::string("trap 'exit 9' ") + name + "; echo ready; while :; do sleep 0.01; done";
        Process device({deviceProgram(), "run", "--", "sh", "-c", script});
        ASSERT_TRUE(device.says("ready"));

        device.kill(name == std::string("TERM")  ? SIGTERM
                    : name == std::string("INT") ? SIGINT
                    : name == std::string("HUP") ? SIGHUP
                                                 : SIGUSR1);

        EXPECT_EQ(device.wait(), 9) << name;
    }
}

TEST(DeviceCommand, StartsTheCommandWithItsSignalsUnblocked)
{
    expectText(runScript("grep SigBlk /proc/self/status").out, like("SigBlk:\t0000000000000000*"));
}

TEST(DeviceCommand, FixesTheAddressesOnRequest)
{
    const std::string script = "cat /proc/self/personality";
    EXPECT_EQ(runScript(script).out, "00000000\n");
    if (runScript(script, {"--no-aslr"}).out == "00000000\n") {
        GTEST_SKIP() << "personality() is forbidden here";
    }

    EXPECT_EQ(runScript(script, {"--no-aslr"}).out, "00040000\n");
    EXPECT_EQ(
        run({"env", "QUILLON_DEVICE_NO_ASLR=1", deviceProgram(), "run", "--", "sh", "-c", script})
            .out,
        "00040000\n");
}

TEST(DeviceCommand, StartsTheUsersShell)
{
    EXPECT_EQ(run({"env", "SHELL=/bin/true", deviceProgram(), "shell"}).status, 0);
    EXPECT_EQ(run({"env", "SHELL=/bin/false", deviceProgram(), "shell"}).status, 1);
}

TEST(DeviceCommand, RefusesWrongUsageInOneLine)
{
    const std::vector<Words> wrong = {
        {},
        {"run"},
        {"run", "--"},
        {"dance"},
        {"info", "more"},
        {"shell", "more"},
        {"run", "--isolation", "magic", "--", "true"},
        {"run", "--isolation"},
        {"run", "--bogus", "--", "true"},
    };
    for (const Words& arguments : wrong) {
        const Result result = runDevice(arguments);
        EXPECT_EQ(result.status, 125) << testing::PrintToString(arguments);
        EXPECT_TRUE(isOneLine(result.err)) << result.err;
        expectText(result.err, like("quillon-device: *"));
    }
}

TEST(DeviceCommand, ShowsEachOptionInItsHelp)
{
    const Result result = runDevice({"--help"});

    EXPECT_EQ(result.status, 0);
    for (const char* word :
         {"run", "shell", "info", "--isolation", "--in-place", "--no-aslr", "--help", "--version",
          "QUILLON_DEVICE_IN_PLACE", "QUILLON_DEVICE_NO_ASLR", "125", "126", "127"}) {
        expectText(result.out, like("*" + std::string(word) + "*"));
    }
}

TEST(DeviceCommand, EndsWith125WhenItsOwnOutputCannotBeWritten)
{
    for (const char* word : {"--help", "--version", "info"}) {
        for (const char* output : {">/dev/full", ">&-"}) {
            const Result result = run({"sh", "-c", deviceProgram() + " " + word + " " + output});

            EXPECT_EQ(result.status, 125) << word << " " << output;
            EXPECT_TRUE(isOneLine(result.err)) << result.err;
            expectText(result.err, like("quillon-device: standard output could not be "
                                        "written: *"));
        }
    }
}

TEST(DeviceCommand, LeavesTheOutputOfTheCommandToTheCommand)
{
    const Result result = run({"sh", "-c", deviceProgram() + " run -- sh -c 'exit 7' >/dev/full"});

    EXPECT_EQ(result.status, 7);
    expectNoText(result.err, like("*standard output*"));
}

TEST(DeviceCommand, HasEachWordOfItsHelpInTheManualPage)
{
    const std::string manual = readAll(MANUAL_PAGE);
    const std::string help = runDevice({"--help"}).out;
    const std::regex word("--([a-z]+[a-z-]*)|QUILLON_[A-Z_]+");

    for (std::sregex_iterator match(help.begin(), help.end(), word), end; match != end; ++match) {
        const std::string option = (*match)[1];
        expectText(manual,
                   like("*" + (option.empty() ? "Ev " + match->str() : "-" + option) + "*"));
    }
    expectText(manual, like("*.Cm run\n*"));
    expectText(manual, like("*.Cm shell\n*"));
    expectText(manual, like("*.Cm info\n*"));
}

TEST(DeviceCommand, ShowsItsVersion)
{
    EXPECT_THAT(runDevice({"--version"}).out, testing::MatchesRegex("quillon-device [0-9.]+\n"));
}

TEST(DeviceCommand, SaysWhichWaysAreOpen)
{
    const std::string info = runDevice({"info"}).out;

    expectText(info, like("*root:      *"));
    expectText(info, like("*user:      *"));
    expectText(info, like("*in-place:  *"));
    const std::string way = runScript("printf %s $QUILLON_DEVICE").out;
    expectText(info, like("*auto:      " + way + "\n*"));
}
