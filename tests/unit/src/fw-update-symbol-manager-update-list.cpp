// The update list, and the word that updating is over.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/fd.h"
#include "fw-update-symbol-manager-runs.h"

using namespace quillon::fakes;
using namespace quillon::test;

namespace {

constexpr const char* kUnsafe = "fail check_race_condition\n";
constexpr const char* kStopped = "Task is not running, writeFirmwareUpdateList stop";
constexpr const char* kVictim = "/opt/media/victim";

/// The flags of the descriptor that is open on a path; -1 when there is none.
int descriptorFlags(const std::string& path)
{
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        if (std::filesystem::read_symlink(entry.path(), error) == path) {
            return fcntl(std::stoi(entry.path().filename()), F_GETFD);
        }
    }
    return -1;
}

class UpdateList : public RunTest
{
protected:
    void install(const Module& description = Module().needsUpdate())
    {
        addModule("alpha", description);
        start();
    }

    std::vector<std::string> threeModules()
    {
        for (const char* name : {"mike", "alpha", "zulu"}) {
            addModule(name, Module().needsUpdate());
        }
        start();
        return listedModules();
    }

    int write()
    {
        const int before = openDescriptors();
        const int result = manager->writeFirmwareUpdateList(running);
        EXPECT_EQ(openDescriptors(), before) << "a file was left open";
        return result;
    }

    bool running = true;
};

class UpdatingIsOver : public RunTest
{
};

}  // namespace

TEST_F(UpdateList, HoldsALineForEachModuleToUpdate)
{
    const std::vector<std::string> names = threeModules();
    device.changeModule(names[1], Module().upToDate());

    EXPECT_EQ(write(), 2);

    EXPECT_EQ(readAll(kUpdateList),
              names[0] + " " + names[0] + "emp\n" + names[2] + " " + names[2] + "emp\n");
    expectStep(LogFrom("writeFirmwareUpdateList", ERROR,
                       "Need Update [" + names[0] + "][" + names[0] + "emp]"));
    EXPECT_EQ(logTexts().back(), "Need Update [" + names[2] + "][" + names[2] + "emp]");
    EXPECT_EQ(askedFor("checkVersion"), names);
}

TEST_F(UpdateList, AsksForTheServiceAndMarksTheModules)
{
    addModule("alpha", Module().needsUpdate(), 33);
    start();

    EXPECT_EQ(write(), 1);

    expectTexts(pluginTexts(),
                {"alpha.setContext(\"alpha\", 2, \"\")", "alpha.checkVersion(\"2.0\", need 0)"});
    EXPECT_TRUE(module("alpha").getNeedUpdate());
    EXPECT_EQ(module("alpha").getExpectedUpdateTime(), 33);
}

TEST_F(UpdateList, AsksWithAnArgumentThatStaysValid)
{
    std::vector<char*> arguments;
    addModule("alpha", Module().needsUpdate().onSetContext(
                           [&](const char*, char* text) { arguments.push_back(text); }));
    start();

    EXPECT_EQ(write(), 1);

    ASSERT_GE(arguments.size(), 2U) << "loading and checking";
    EXPECT_EQ(arguments.back(), arguments.front());
}

TEST_F(UpdateList, OfNothingToUpdateIsEmpty)
{
    install(Module().upToDate());

    EXPECT_EQ(write(), 0);

    EXPECT_EQ(readAll(kUpdateList), "");
}

TEST_F(UpdateList, OfNoModulesIsEmpty)
{
    start();

    EXPECT_EQ(write(), 0);

    EXPECT_EQ(readAll(kUpdateList), "");
    expectSteps({});
}

TEST_F(UpdateList, CountsOnlyTheNeedOne)
{
    for (const int need : {-1, 2}) {
        addModule("alpha" + std::to_string(need + 1), Module().needs(need));
    }
    device.addModuleFile("broken", bytesOf("no library"));
    start();

    EXPECT_EQ(write(), 0);

    EXPECT_EQ(readAll(kUpdateList), "");
}

TEST_F(UpdateList, NamesTheLibraryAndThePackage)
{
    device.addModule("alpha", Module().needsUpdate().withEmpid("tunerempA1"));
    offer("tunerA1", "tunerempA1", 30);
    start();

    EXPECT_EQ(write(), 1);

    EXPECT_EQ(readAll(kUpdateList), "alpha tunerempA1\n");
    expectStep(Log("Need Update [alpha][tunerempA1]"));
}

TEST_F(UpdateList, IsWrittenAnewByEachPass)
{
    const std::vector<std::string> names = threeModules();
    EXPECT_EQ(write(), 3);
    device.changeModule(names[0], Module().upToDate());
    device.changeModule(names[1], Module().upToDate());

    EXPECT_EQ(write(), 1);

    EXPECT_EQ(readAll(kUpdateList), names[2] + " " + names[2] + "emp\n");
}

TEST_F(UpdateList, MayBeReadByOtherPrograms)
{
    install();
    umask(022);

    EXPECT_EQ(write(), 1);

    struct stat status = {};
    ASSERT_EQ(stat(kUpdateList, &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0644U);
}

TEST_F(UpdateList, IsNotHandedToProgramsThatAPlugInStarts)
{
    int flags = -1;
    install(Module().onCheckVersion([&flags](const char* /*version*/, int* /*need*/) {
        flags = descriptorFlags(kUpdateList);
        return 0;
    }));

    write();

    EXPECT_EQ(flags, FD_CLOEXEC);
}

TEST_F(UpdateList, BehindALinkIsRefusedBeforeAnyModuleIsAsked)
{
    install();
    writeFile(kVictim, "untouched");
    ASSERT_EQ(symlink(kVictim, kUpdateList), 0);

    EXPECT_EQ(write(), -1);

    expectSteps({LogFrom("check_race_condition", ERROR, "symbolic link is detected\n"),
                 LogFrom("writeFirmwareUpdateList", ERROR, kUnsafe)});
    EXPECT_EQ(readAll(kVictim), "untouched");
    EXPECT_EQ(std::filesystem::read_symlink(kUpdateList), kVictim);
}

TEST_F(UpdateList, BehindALinkToNothingIsRefused)
{
    install();
    ASSERT_EQ(symlink(kVictim, kUpdateList), 0);

    EXPECT_EQ(write(), -1);

    expectTexts(logTexts(), {"symbolic link is detected\n", kUnsafe});
    EXPECT_FALSE(std::filesystem::exists(kVictim));
}

TEST_F(UpdateList, BehindALinkThatAppearsAfterTheLookIsNotWritten)
{
    install();
    writeFile(kVictim, "untouched");
    ASSERT_EQ(symlink(kVictim, kUpdateList), 0);
    failCall("lstat", ENOENT);

    EXPECT_EQ(write(), 1);

    EXPECT_EQ(readAll(kVictim), "untouched");
    EXPECT_EQ(logTexts().back(), "Need Update [alpha][alphaemp]");
}

TEST_F(UpdateList, WhosePathCannotBeLookedAtIsRefused)
{
    install();
    writeFile(kUpdateList, "untouched");
    recordCalls({"lstat"});
    failCall("lstat", EACCES);

    EXPECT_EQ(write(), -1);

    expectSteps({Call("lstat(\"/tmp/fwupdate-off-list.txt\") = -1"),
                 LogFrom("check_race_condition", ERROR, "lstat error\n"),
                 LogFrom("writeFirmwareUpdateList", ERROR, kUnsafe)});
    EXPECT_EQ(readAll(kUpdateList), "untouched");
}

TEST_F(UpdateList, ThatCannotBeOpenedIsNotReported)
{
    install();
    makeDirectory(kUpdateList);

    EXPECT_EQ(write(), 1);

    EXPECT_EQ(logTexts().back(), "Need Update [alpha][alphaemp]");
    EXPECT_TRUE(std::filesystem::is_directory(kUpdateList));
    EXPECT_TRUE(module("alpha").getNeedUpdate());
}

TEST_F(UpdateList, ThatIsASecondNameOfAnotherFileIsNotWritten)
{
    install();
    const char* victim = "/tmp/victim";
    writeFile(victim, "untouched");
    ASSERT_EQ(link(victim, kUpdateList), 0);

    EXPECT_EQ(write(), 1);

    EXPECT_EQ(readAll(victim), "untouched");
    EXPECT_EQ(logTexts().back(), "Need Update [alpha][alphaemp]");
}

TEST_F(UpdateList, IsNotWrittenIntoAPipeThatHasAReader)
{
    install();
    ASSERT_EQ(mkfifo(kUpdateList, 0600), 0);
    const quillon::UniqueFd reader(open(kUpdateList, O_RDONLY | O_NONBLOCK | O_CLOEXEC));

    EXPECT_EQ(write(), 1);

    char byte = 0;
    EXPECT_EQ(read(reader.get(), &byte, 1), 0) << "nobody has written";
}

TEST_F(UpdateList, DoesNotWaitForTheReaderOfAPipe)
{
    install();
    ASSERT_EQ(mkfifo(kUpdateList, 0600), 0);

    EXPECT_EQ(write(), 1);

    EXPECT_TRUE(module("alpha").getNeedUpdate());
}

TEST_F(UpdateList, StoppedBeforeTheFirstModuleIsEmpty)
{
    install();
    writeFile(kUpdateList, "an earlier list");
    running = false;

    EXPECT_EQ(write(), -1);

    expectSteps({LogFrom("writeFirmwareUpdateList", ERROR, kStopped)});
    EXPECT_EQ(readAll(kUpdateList), "");
}

TEST_F(UpdateList, StoppedBetweenTwoModulesKeepsItsLines)
{
    const std::vector<std::string> names = threeModules();
    device.changeModule(names[1],
                        Module().onCheckVersion([this](const char* /*version*/, int* need) {
                            running = false;
                            *need = 1;
                            return 0;
                        }));

    EXPECT_EQ(write(), -1);

    EXPECT_EQ(logTexts().back(), kStopped);
    EXPECT_EQ(readAll(kUpdateList),
              names[0] + " " + names[0] + "emp\n" + names[1] + " " + names[1] + "emp\n");
    expectTexts(askedFor("checkVersion"), {names[0], names[1]});
}

TEST_F(UpdateList, HoldsEachLineBeforeTheNextModuleIsAsked)
{
    const std::vector<std::string> names = threeModules();
    std::string seen;
    device.changeModule(names[1],
                        Module().onCheckVersion([&seen](const char* /*version*/, int* need) {
                            seen = readAll(kUpdateList);
                            *need = 1;
                            return 0;
                        }));

    EXPECT_EQ(write(), 3);

    EXPECT_EQ(seen, names[0] + " " + names[0] + "emp\n");
}

TEST_F(UpdateList, StoppedAfterTheLastModuleIsWhole)
{
    install(Module().onCheckVersion([this](const char* /*version*/, int* need) {
        running = false;
        *need = 1;
        return 0;
    }));

    EXPECT_EQ(write(), 1);

    EXPECT_EQ(readAll(kUpdateList), "alpha alphaemp\n");
}

TEST_F(UpdateList, OfNoModulesIsNotStopped)
{
    start();
    running = false;

    EXPECT_EQ(write(), 0);
}

TEST_F(UpdateList, IsClosedWhenAPlugInThrows)
{
    install(Module().throwing("checkVersion"));
    const int before = openDescriptors();

    EXPECT_THROW(manager->writeFirmwareUpdateList(running), std::runtime_error);

    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(UpdatingIsOver, IsToldToEveryModuleInOrder)
{
    for (const char* name : {"mike", "alpha", "zulu"}) {
        addModule(name, Module().returning("allUpdateDone", -1));
    }
    start();
    const std::vector<std::string> names = listedModules();

    EXPECT_EQ(manager->allDoUpdateDone(), 0);

    expectSteps({LogFrom("allDoUpdateDone", ERROR, "Try allDoUpdateDone"),
                 Plugin(names[0] + ".allUpdateDone()"), Plugin(names[1] + ".allUpdateDone()"),
                 Plugin(names[2] + ".allUpdateDone()"),
                 LogFrom("allDoUpdateDone", ERROR, "allDoUpdateDone Done")});
}

TEST_F(UpdatingIsOver, IsNothingToModulesThatDoNotListen)
{
    addModule("alpha", Module().lacking("allUpdateDone"));
    device.addModuleFile("broken", bytesOf("no library"));
    start();

    EXPECT_EQ(manager->allDoUpdateDone(), 0);

    expectSteps({Log(ERROR, "Try allDoUpdateDone"), Log(ERROR, "allDoUpdateDone Done")});
}
