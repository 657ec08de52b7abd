// Modules that end the program that they were loaded into.

#include <signal.h>

#include <filesystem>

#include "support/sanitizers.h"
#include "support/texts.h"
#include "system/control-layer.h"
#include "system/daemon.h"

namespace quillon::test {
namespace {

using ModuleEndsProgram = ControlLayer;

TEST_F(ModuleEndsProgram, ByExitInAnUpdateExitsWith6AndLeavesNothingLocked)
{
    installGuided("alpha", "exit-in-doUpdate");

    const ModulesResult result = runModules({"update", "alpha", "--source", "system"});

    EXPECT_EQ(result.exitCode, 6);
    EXPECT_EQ(result.err, "quillonctl: the module alpha has ended the program\n");
    EXPECT_EQ(semaphoreValue(), 1);
    const Json::Value document = json({"update", "--all", "--source", "system"}, 6);
    EXPECT_EQ(document["event"], "error");
    EXPECT_EQ(document["exitCode"], 6);
    EXPECT_EQ(document["text"], "the module alpha has ended the program");
    EXPECT_EQ(semaphoreValue(), 1);
}

TEST_F(ModuleEndsProgram, ByExitElsewhereExitsWith11AndNamesTheModule)
{
    install("beta");
    for (const std::string entry : {"setContext", "getUpdateProgress"}) {
        installGuided("alpha", "exit-in-" + entry);
        EXPECT_EQ(json({"progress", "alpha"}, 11)["text"], "the module alpha has ended the program")
            << entry;
    }
}

TEST_F(ModuleEndsProgram, AtOnceAsByExit)
{
    for (const std::string way : {"_exit", "_Exit"}) {
        installGuided("alpha", way + "-in-doUpdate");
        const Json::Value document = json({"update", "alpha", "--source", "system"}, 6);
        EXPECT_EQ(document["text"], "the module alpha has ended the program") << way;
        EXPECT_EQ(semaphoreValue(), 1);

        for (const std::string moment : {"-in-load", "-in-setContext"}) {
            installGuided("alpha", way + moment);
            EXPECT_EQ(json({"progress", "alpha"}, 11)["text"],
                      "the module alpha has ended the program")
                << way << moment;
        }
    }
}

TEST_F(ModuleEndsProgram, AlsoWhereThatCannotBeToldAsUsual)
{
    installGuided("alpha", "mute-in-doUpdate _exit-in-doUpdate");
    BackgroundLayer layer({"modules", "update", "alpha", "--source", "system"});

    EXPECT_EQ(layer.wait(), 6);
    expectText(layer.output(), like("*quillonctl: a module has ended the program\n*"));
    EXPECT_EQ(semaphoreValue(), 1);
}

/// @param  a way to end the program on two threads
class ModuleEndsProgramTwice : public ModuleEndsProgram,
                               public testing::WithParamInterface<const char*>
{
};

TEST_P(ModuleEndsProgramTwice, AsOnceAlsoWhileTheFirstEndIsBeingTold)
{
    const std::string twice = std::string(GetParam()) + "-in-doUpdate";
    for (const std::string& what : {twice, "mute-in-doUpdate " + twice}) {
        installGuided("alpha", what);
        BackgroundLayer layer({"modules", "update", "alpha", "--source", "system"});

        EXPECT_EQ(layer.wait(), 6) << layer.output();
        expectText(layer.output(), like("*has ended the program\n*"));
        EXPECT_EQ(semaphoreValue(), 1);
    }
}

INSTANTIATE_TEST_SUITE_P(Way, ModuleEndsProgramTwice, testing::Values("exit-twice", "_exit-twice"));

TEST_F(ModuleEndsProgram, ByExitAlsoWhereItsOwnExitHandlerDoesNotReturn)
{
    installGuided("alpha", "linger-in-load exit-in-doUpdate");

    EXPECT_EQ(json({"update", "alpha", "--source", "system"}, 6)["text"],
              "the module alpha has ended the program");
    EXPECT_EQ(semaphoreValue(), 1);
}

TEST_F(ModuleEndsProgram, AndIsNamedThoughItsFileIsALink)
{
    installGuided("alpha", "exit-in-doUpdate");
    const std::string file = "/usr/fwupdate/controls/alpha.so";
    std::filesystem::copy_file(file, "/var/tmp/alpha.so");
    std::filesystem::remove(file);
    std::filesystem::create_symlink("/var/tmp/alpha.so", file);

    EXPECT_EQ(json({"update", "alpha", "--source", "system"}, 6)["text"],
              "the module alpha has ended the program");
}

TEST_F(ModuleEndsProgram, NotByKeepingItFromEnding)
{
    installGuided("alpha", "linger-in-load");

    EXPECT_EQ(json({"progress", "alpha"}, 12)["event"], "error");
    EXPECT_EQ(json({"list"})["modules"].size(), 1U);
    EXPECT_EQ(json({"check", "--source", "usb"}, 7)["event"], "modules-check");
}

TEST_F(ModuleEndsProgram, NotByTheEndOfItsChild)
{
    for (const std::string way : {"fork", "fork-at-once", "return"}) {
        installGuided("alpha", way + "-in-doUpdate");

        const ModulesResult result = runModules({"update", "alpha", "--source", "system"});

        EXPECT_EQ(result.exitCode, 0);
        expectText(result.out, like("*alpha  2.0      updated\n"));
        expectNoText(result.err, like("*has ended the program*"));
        EXPECT_EQ(semaphoreValue(), 1);
    }
}

TEST_F(ModuleEndsProgram, NotByAChildThatGoesOnAsASecondControlLayer)
{
    for (const std::string moment : {"load", "setContext", "checkVersion", "allUpdateDone"}) {
        std::filesystem::remove("/tmp/quillon-test-alpha.log");
        installGuided("alpha", "return-in-" + moment);

        const ModulesResult result = runModules({"update", "alpha", "--source", "system"});

        EXPECT_EQ(result.exitCode, 0) << moment;
        EXPECT_EQ(linesOf("/tmp/quillon-test-alpha.log", "alpha.doUpdate(").size(), 1U) << moment;
        EXPECT_EQ(linesOf("/tmp/quillon-test-alpha.log", "alpha.allUpdateDone(").size(), 1U)
            << moment;
        EXPECT_EQ(semaphoreValue(), 1) << moment;
    }
}

TEST_F(ModuleEndsProgram, ByACrashLeavesNothingLocked)
{
    installGuided("alpha", "crash-in-doUpdate");
    BackgroundLayer layer({"modules", "update", "alpha", "--source", "system"});

    EXPECT_EQ(layer.wait(), -SIGABRT);
    expectText(layer.output(), like("*a module has crashed in its update*"));
    EXPECT_EQ(semaphoreValue(), 1);
    installGuided("alpha", "");
    EXPECT_EQ(json({"update", "alpha", "--source", "system"})["exitCode"], 0);
}

TEST_F(ModuleEndsProgram, ByACrashWithSignalsBlockedLeavesNothingLocked)
{
    leaveCrashesToPrograms();
    installGuided("alpha", "block-in-doUpdate fault-in-doUpdate");
    BackgroundLayer layer({"modules", "update", "alpha", "--source", "system"});

    EXPECT_EQ(layer.wait(), -SIGSEGV);
    expectText(layer.output(), like("*a module has crashed in its update*"));
    EXPECT_EQ(semaphoreValue(), 1);
}

TEST_F(ModuleEndsProgram, ByAnOverflownStackLeavesNothingLocked)
{
    leaveCrashesToPrograms();
    installGuided("alpha", "overflow-in-doUpdate");
    BackgroundLayer layer({"modules", "update", "alpha", "--source", "system"});

    EXPECT_EQ(layer.wait(), -SIGSEGV);
    expectText(layer.output(), like("*a module has crashed in its update*"));
    EXPECT_EQ(semaphoreValue(), 1);
}

}  // namespace
}  // namespace quillon::test
