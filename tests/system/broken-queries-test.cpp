// Modules that crash, hang or end the program while they are only looked at.

#include <signal.h>

#include <filesystem>

#include "support/files.h"
#include "support/sanitizers.h"
#include "support/texts.h"
#include "system/control-layer.h"

namespace quillon::test {
namespace {

/// What is done with a module before it is listed, and how that is told.
struct Moment
{
    const char* name;
    const char* told;
};
constexpr Moment kMoments[] = {{"load", " while it was loaded"},
                               {"setContext", " while it was loaded"},
                               {"getEMPID", " while it was loaded"},
                               {"getActiveVersion", " when it was asked for its version"}};
/// Seconds for each answer of a module, of which one hangs; and where none does.
constexpr const char* kShort = "6";
constexpr const char* kAmple = "60";
constexpr const char* kChecked = " when it was asked whether it needs an update";

class BrokenQueries : public ControlLayer
{
protected:
    void SetUp() override
    {
        leaveCrashesToPrograms();
        installGuided("beta", "");
    }

    /// Lists the modules, in which beta must be whole.
    /// @param patience  seconds for each answer of a module
    static Json::Value list(const std::string& patience = kAmple)
    {
        Json::Value modules = json({"list", "--timeout", patience});
        EXPECT_EQ(of("beta", modules)["kind"], "firmware");
        EXPECT_EQ(of("beta", modules)["running"], "1.0");
        return modules;
    }
    static void expectUnusable(const Json::Value& module, const std::string& problem,
                               const std::string& reason)
    {
        EXPECT_EQ(module["kind"], "unusable");
        EXPECT_EQ(module["problem"], problem);
        EXPECT_EQ(module["reason"], reason);
        EXPECT_FALSE(module.isMember("running"));
    }
    /// Checks the modules, of which beta must need an update.
    static Json::Value check(const std::string& patience = kAmple)
    {
        Json::Value checks = json({"check", "--source", "system", "--timeout", patience});
        EXPECT_EQ(of("beta", checks)["decision"], "needed");
        return checks;
    }
};

TEST_F(BrokenQueries, ThatCrashNameTheModuleAndListTheOthers)
{
    for (const Moment& moment : kMoments) {
        installGuided("alpha", std::string("fault-in-") + moment.name);

        expectUnusable(of("alpha", list()), "crashed",
                       std::string("it crashed") + moment.told + " (SIGSEGV)");
    }
    installGuided("alpha", "crash-in-load");
    expectText(runModules({"list"}).out,
               like("*alpha  -        unusable: it crashed while it was loaded (SIGABRT)\n*"));
}

TEST_F(BrokenQueries, ThatSendASignalToTheProgramAreAsACrash)
{
    installGuided("alpha", "request-in-load");

    expectUnusable(of("alpha", list()), "crashed", "it crashed while it was loaded (SIGTERM)");
}

TEST_F(BrokenQueries, ThatHangNameTheModuleAndListTheOthers)
{
    for (const Moment& moment : kMoments) {
        installGuided("alpha", std::string("hang-in-") + moment.name);

        expectUnusable(of("alpha", list(kShort)), "hung", std::string("it hung") + moment.told);
    }
}

TEST_F(BrokenQueries, ThatHangWhereNoModuleIsAskedDoNotHoldUpTheProgram)
{
    installGuided("alpha", "trap-in-getActiveVersion");

    expectText(json({"list", "--timeout", kShort}, 9)["text"].asString(),
               "one of the modules is broken, but it cannot be told which: it hung; move them out "
               "of /usr/fwupdate/controls/ one by one");
}

TEST_F(BrokenQueries, ThatEndTheProgramNameTheModuleAndListTheOthers)
{
    for (const Moment& moment : kMoments) {
        for (const std::string way : {"exit", "_exit"}) {
            installGuided("alpha", way + "-in-" + moment.name);

            expectUnusable(of("alpha", list()), "ended",
                           std::string("it ended the program") + moment.told);
        }
    }
}

TEST_F(BrokenQueries, OfSeveralModulesNameEachOfThem)
{
    installGuided("alpha", "fault-in-load");
    installGuided("gamma", "hang-in-getActiveVersion");
    installGuided("delta", "exit-in-getEMPID");
    installGuided("EXT-tool", "fault-in-getActiveVersion");

    const Json::Value modules = list(kShort);

    EXPECT_EQ(modules["modules"].size(), 5U);
    EXPECT_EQ(of("alpha", modules)["problem"], "crashed");
    EXPECT_EQ(of("gamma", modules)["problem"], "hung");
    EXPECT_EQ(of("delta", modules)["problem"], "ended");
    EXPECT_EQ(of("EXT-tool", modules)["problem"], "crashed");
}

TEST_F(BrokenQueries, OfACheckNameTheModuleAndCheckTheOthers)
{
    const auto expectProblem = [](const std::string& problem, const std::string& reason,
                                  const std::string& patience = kAmple) {
        const Json::Value alpha = of("alpha", check(patience));
        EXPECT_EQ(alpha["decision"], "unusable");
        EXPECT_EQ(alpha["problem"], problem);
        EXPECT_EQ(alpha["reason"], reason);
    };
    installGuided("alpha", "fault-in-checkVersion");
    expectProblem("crashed", std::string("it crashed") + kChecked + " (SIGSEGV)");
    installGuided("alpha", "exit-in-checkVersion");
    expectProblem("ended", std::string("it ended the program") + kChecked);
    installGuided("alpha", "hang-in-checkVersion");
    expectProblem("hung", std::string("it hung") + kChecked, kShort);
    installGuided("alpha", "fault-in-load");
    expectProblem("crashed", "it crashed while it was loaded (SIGSEGV)");
}

TEST_F(BrokenQueries, ThatUseUpTheMemoryNameTheModuleAndLeaveTheOthers)
{
    if (QUILLON_SANITIZED != 0) {
        GTEST_SKIP() << "a sanitizer needs memory of its own";
    }
    installGuided("alpha", "memory-in-getActiveVersion");

    expectUnusable(of("alpha", list()), "ended", "it used up the memory");
}

TEST_F(BrokenQueries, ThatUseUpTheMemoryOfAnUpdateEndItWithARemedy)
{
    if (QUILLON_SANITIZED != 0) {
        GTEST_SKIP() << "a sanitizer needs memory of its own";
    }
    for (const std::string moment : {"load", "setContext", "getEMPID"}) {
        installGuided("alpha", "memory-in-" + moment);

        const ModulesResult result = runModules({"update", "beta", "--source", "system"});

        EXPECT_EQ(result.exitCode, 9) << moment << result.err << result.log;
        expectText(result.err, like("*memory is used up*\"quillonctl modules list\" names*"));
    }
}

TEST_F(BrokenQueries, OfTheOnlyModuleOfACheckExitWith11)
{
    std::filesystem::remove("/usr/fwupdate/controls/beta.so");
    installGuided("alpha", "fault-in-checkVersion");

    json({"check", "--source", "system"}, 11);
}

TEST_F(BrokenQueries, ForAVersionExitWith11)
{
    installGuided("alpha", "fault-in-getActiveVersion");

    EXPECT_EQ(json({"version", "alpha"}, 11)["text"],
              "the module alpha is unusable: it crashed when it was asked for its version "
              "(SIGSEGV)");
}

TEST_F(BrokenQueries, AreNoneOfAnotherModulesVersion)
{
    installGuided("alpha", "fault-in-load");

    EXPECT_EQ(json({"version", "beta"})["version"], "1.0");
    EXPECT_FALSE(wasAsked("alpha", "load("));
    for (const char* elsewhere : {"../controls/beta", "gamma", ""}) {
        EXPECT_EQ(runModules({"version", elsewhere}).exitCode, 10) << elsewhere;
    }
}

TEST_F(BrokenQueries, ByAThreadOfAModuleAreNotBlamedOnTheOneThatIsAsked)
{
    installGuided("alpha", "fault-beside-in-load");
    installGuided("gamma", "go-in-getActiveVersion hang-in-getActiveVersion");
    const auto expectBothNamed = [] {
        const Json::Value modules = list("10");
        expectUnusable(of("alpha", modules), "crashed", "it crashed (SIGSEGV)");
        expectUnusable(of("gamma", modules), "hung", "it hung when it was asked for its version");
    };
    expectBothNamed();

    std::filesystem::remove("/tmp/quillon-test-go");
    const std::string file = "/usr/fwupdate/controls/alpha.so";
    std::filesystem::copy_file(file, "/var/tmp/alpha.so");
    std::filesystem::remove(file);
    std::filesystem::create_symlink("/var/tmp/alpha.so", file);
    expectBothNamed();
}

TEST_F(BrokenQueries, ByAVersionWithoutEndAreACrash)
{
    installGuided("alpha", "long-in-getActiveVersion");

    expectText(
        runModules({"list", "--timeout", kAmple}).out,
        like("*\nalpha  -        unusable: it crashed when it was asked for its version (*"));
}

TEST_F(BrokenQueries, ThatLeaveAProcessBehindDoNotWaitForIt)
{
    for (const std::string after : {"", "fault-in-getActiveVersion", "exit-in-getActiveVersion"}) {
        installGuided("alpha", "stay-in-load " + after);
        BackgroundLayer layer({"modules", "list"});

        EXPECT_EQ(layer.wait(), 0);
        expectText(layer.output(), like("*beta   1.0      no package\n*"));
    }
    goOn();
}

TEST_F(BrokenQueries, ThatCloseAllFilesAreAnsweredAllTheSame)
{
    installGuided("alpha", "close-in-load close-in-getActiveVersion");

    EXPECT_EQ(of("alpha", list())["running"], "1.0");
}

TEST_F(BrokenQueries, ThatPrintSomethingDisturbNoListAndNoVersion)
{
    installGuided("alpha", "noise-in-load noise-in-getActiveVersion");

    const CtlResult list = runCtl({"modules", "list"});

    expectText(list.out, like("NAME *\nalpha  1.0      no package\n*"));
    EXPECT_EQ(list.err, "");
    EXPECT_EQ(runCtl({"modules", "version", "alpha"}).out, "1.0\n");
}

TEST_F(BrokenQueries, ThatPrintSomethingHaveItPrintedOnceInACheck)
{
    installGuided("alpha", "noise-in-load");

    const std::string out = runModules({"check", "--source", "system"}).out;

    EXPECT_NE(out.find("noise of alpha\n"), std::string::npos);
    EXPECT_EQ(out.find("noise of alpha\n"), out.rfind("noise of alpha\n"));
}

/// Whether there is a process whose command line has that.
bool isRunning(const std::string& pattern)
{
    return runShell("grep -aqs '" + pattern + "' /proc/[0-9]*/cmdline") == 0;
}

/// Lists the modules, of which alpha hangs when it is asked for its version. Expects that this ends
/// the process that has told its identifier, see guided-module.cpp.
void expectThatItEndsTheProcess()
{
    BackgroundLayer layer({"modules", "list", "--timeout", kShort});

    EXPECT_EQ(layer.wait(), 0);

    expectText(layer.output(), like("*alpha  -        unusable: it hung when it was asked *"));
    const std::string process = readAll("/tmp/quillon-test-pid");
    ASSERT_NE(process, "");
    EXPECT_TRUE(eventually([&] { return readAll("/proc/" + process + "/cmdline").empty(); }));
}

TEST_F(BrokenQueries, ThatHangAreEndedWithWhatTheModuleHasStarted)
{
    installGuided("alpha", "tool-in-getActiveVersion");

    expectThatItEndsTheProcess();
}

TEST_F(BrokenQueries, ThatHangAreEndedOutsideOfTheirProcessGroupAsWell)
{
    installGuided("alpha",
                  "stay-in-getActiveVersion leave-in-getActiveVersion hang-in-getActiveVersion");

    expectThatItEndsTheProcess();
}

TEST_F(BrokenQueries, EndWithTheProgramHoweverThatIsEnded)
{
    for (const int signal : {SIGTERM, SIGKILL}) {
        std::filesystem::remove("/tmp/quillon-test-alpha.log");
        installGuided("alpha", "block-in-load hang-in-load");
        BackgroundLayer layer({"modules", "list"});
        ASSERT_TRUE(eventually([] { return wasAsked("alpha", "load("); }));
        ASSERT_TRUE(isRunning("^quillonctl"));

        layer.send(signal);

        EXPECT_EQ(layer.wait(), signal == SIGKILL ? -SIGKILL : 130);
        EXPECT_TRUE(eventually([] { return !isRunning("^quillonctl"); }));
    }
}

using SharedNames = CtlModules;

TEST_F(SharedNames, AreToldOfBothModules)
{
    install("alpha", "empid=sharedemp\nneed=1\n");
    install("beta", "empid=sharedemp\nneed=0\n");
    install("gamma", "empid=g1emp\n");
    install("delta", "empid=empg1\n");
    install("whole");
    offer("shared");

    const Json::Value list = json({"list"});
    const Json::Value check = json({"check", "--source", "system"});

    for (const Json::Value& document : {list, check}) {
        EXPECT_EQ(of("alpha", document)["problem"], "same-identifier");
        EXPECT_EQ(of("alpha", document)["reason"], "it has the package identifier of beta");
        EXPECT_EQ(of("beta", document)["problem"], "same-identifier");
        EXPECT_EQ(of("beta", document)["reason"], "it has the package identifier of alpha");
        EXPECT_EQ(of("gamma", document)["problem"], "same-name");
        EXPECT_EQ(of("delta", document)["problem"], "same-name");
        EXPECT_FALSE(of("whole", document).isMember("problem"));
    }
    EXPECT_EQ(of("alpha", list)["kind"], "firmware");
    EXPECT_EQ(of("gamma", list)["reason"], "it has the firmware name of delta");
    EXPECT_EQ(of("alpha", check)["decision"], "needed");
    EXPECT_EQ(of("beta", check)["decision"], "up-to-date");
    EXPECT_EQ(of("delta", check)["reason"], "no image; it has the firmware name of gamma");
    expectText(runModules({"list"}).out,
               like("*alpha  1.0      no package; it has the package identifier of beta\n*"));
    expectText(runModules({"check", "--source", "system"}).out,
               like("*needs an update, about 3 s; it has the package identifier of beta\n*"));
}

}  // namespace
}  // namespace quillon::test
