// What becomes of mounted packages, the power lock and the update list when a control layer ends
// before its time.

#include <signal.h>
#include <sys/mount.h>

#include <filesystem>
#include <fstream>

#include "support/sanitizers.h"
#include "support/texts.h"
#include "system/control-layer.h"
#include "system/daemon.h"
#include "system/packaged-modules.h"
#include "unit/verifier/test-keys.h"

namespace quillon::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kUpdateList = "/tmp/fwupdate-off-list.txt";

class PackagesAfterAnEnd : public PackagedModules
{
protected:
    static std::vector<std::string> powerLog()
    {
        return linesOf("/tmp/quillon-test-power.log", "");
    }
};

TEST_F(PackagesAfterAnEnd, ByAModuleAreAsAfterAFailure)
{
    addModule("alpha", "exit-in-doUpdate", GUIDED_MODULE);

    const Json::Value document = modulesDocument({"update", "--all"}, 6);

    EXPECT_EQ(document["text"], "the module alpha has ended the program");
    expectTexts(mountedPackages(), {});
    EXPECT_TRUE(fs::exists(imageOf("alphaemp")));
    expectTexts(powerLog(), {"lock 2 for 35000 ms", "unlock 2"});
    EXPECT_FALSE(fs::exists(kUpdateList));
    EXPECT_EQ(semaphoreValue(), 1);
}

TEST_F(PackagesAfterAnEnd, AreSaidToStayMountedWhereNoFileCanBeOpened)
{
    if (QUILLON_SANITIZED != 0) {
        GTEST_SKIP() << "a sanitizer opens files of its own";
    }
    addModule("alpha", "nofile-in-doUpdate throw-in-doUpdate", GUIDED_MODULE);

    const ModulesResult result = runModules({"update", "alpha"});

    EXPECT_EQ(result.exitCode, 6);
    expectText(result.err, like("*the package of alpha stays mounted*"));
}

TEST_F(PackagesAfterAnEnd, ByAnInterruptionOfABlockedCheckAreNotMounted)
{
    addModule("alpha", "need=1\ncheckVersion.effect=hang\n");
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"modules", "check"}, {"modules", "update", "--all"}}) {
        fs::remove("/tmp/quillon-test-alpha.log");
        BackgroundLayer layer(arguments);
        ASSERT_TRUE(eventually([] { return wasAsked("alpha", "checkVersion("); }));
        EXPECT_EQ(mountedPackages().size(), 1U);

        layer.send(SIGINT);

        EXPECT_EQ(layer.wait(), 130);
        expectTexts(mountedPackages(), {});
    }
}

/// The only child of a process; empty for none.
std::string childOf(pid_t process)
{
    const std::string number = std::to_string(process);
    return readAll("/proc/" + number + "/task/" + number + "/children");
}

// The mounting may be under way, and not to be seen yet.
TEST_F(PackagesAfterAnEnd, ByAnInterruptionOfACheckThatIsAboutToMountAreUnmountedUnseen)
{
    if (!fs::exists("/proc/thread-self/children")) {
        GTEST_SKIP() << "this kernel does not tell the children of a process";
    }
    addModule("alpha", "need=1\n");
    helper.send(SIGSTOP);
    BackgroundLayer layer({"modules", "check"});
    ASSERT_TRUE(eventually([&] {
        const std::string child = childOf(layer.process());
        const std::string files = "/proc/" + child.substr(0, child.find(' ')) + "/fd";
        return !child.empty() && runShell("ls -l " + files + " 2>&1 | grep -q socket:") == 0;
    }));

    layer.send(SIGINT);
    EXPECT_TRUE(eventually([&] { return childOf(layer.process()).empty(); }));
    helper.send(SIGCONT);

    EXPECT_EQ(layer.wait(), 130);
    expectText(layer.output(),
               like("*while unmounitng [" + (kMountDirectory + std::string("alphaemp]*"))));
}

TEST_F(PackagesAfterAnEnd, OfACheckThatTheHelperDoesNotAnswerAreBlamedOnIt)
{
    addModule("alpha", "need=1\n");
    addModule("beta", "need=1\n");
    helper.send(SIGSTOP);

    const ModulesResult result = runModules({"check", "--timeout", "5"});
    helper.send(SIGCONT);

    EXPECT_EQ(result.exitCode, 9);
    expectText(result.err, like("quillonctl: the mounting helper does not answer; *doctor*"));
    EXPECT_EQ(result.log.find("no answer from"), std::string::npos) << "it is not asked again";
    EXPECT_EQ(modulesDocument({"check"})["modules"].size(), 2U);
    expectTexts(mountedPackages(), {});
}

TEST_F(PackagesAfterAnEnd, OfACheckWhoseHelperStopsToAnswerAreSaidToStayMounted)
{
    addModule("alpha", "wait-in-checkVersion", GUIDED_MODULE);
    addModule("beta", "wait-in-checkVersion", GUIDED_MODULE);
    BackgroundLayer layer({"modules", "check", "--timeout", "5"});
    ASSERT_TRUE(eventually(
        [] { return wasAsked("alpha", "checkVersion(") || wasAsked("beta", "checkVersion("); }));
    helper.send(SIGSTOP);
    const std::vector<std::string> mounted = mountedPackages();
    writeFile("/tmp/quillon-test-go", "");

    EXPECT_EQ(layer.wait(), 9) << layer.output();
    helper.send(SIGCONT);

    const std::string first = wasAsked("alpha", "checkVersion(") ? "alpha" : "beta";
    const std::string output = layer.output();
    expectText(output, like("*the mounting helper does not answer; *"));
    expectText(output, like("*warning: the package " + first + "emp stays mounted; *"));
    expectNoText(output, like("*no answer from*"));  // it would be asked for each package
    EXPECT_FALSE(wasAsked("alpha", "checkVersion(") && wasAsked("beta", "checkVersion("));
    EXPECT_EQ(mounted.size(), 1U);
    EXPECT_EQ(runModules({"check"}).err, "");
    expectTexts(mountedPackages(), {});
}

TEST_F(PackagesAfterAnEnd, OfAnUpdateThatTheHelperDoesNotAnswerAreBlamedOnIt)
{
    addModule("alpha", "wait-in-checkVersion", GUIDED_MODULE);
    addPackage("alpha", 1);
    BackgroundLayer layer({"modules", "update", "alpha"});
    ASSERT_TRUE(eventually([] { return wasAsked("alpha", "checkVersion("); }));
    helper.send(SIGSTOP);
    writeFile("/tmp/quillon-test-go", "");

    EXPECT_EQ(layer.wait(), 13) << layer.output();
    helper.send(SIGCONT);

    expectText(layer.output(),
               like("*quillonctl: warning: the mounting helper does not answer; *doctor*\n*"
                    "alpha *timed out: its time was over before anything was flashed\n*"));
    EXPECT_FALSE(wasAsked("alpha", "doUpdate("));
}

TEST_F(PackagesAfterAnEnd, OfACheckWithoutItsHelperAreSaidToStayMounted)
{
    addModule("alpha", "wait-in-checkVersion", GUIDED_MODULE);
    BackgroundLayer layer({"modules", "check"});
    ASSERT_TRUE(eventually([] { return wasAsked("alpha", "checkVersion("); }));
    helper.send(SIGKILL);
    helper.wait();
    writeFile("/tmp/quillon-test-go", "");

    EXPECT_EQ(layer.wait(), 0) << layer.output();
    expectText(layer.output(),
               like("*warning: the package alphaemp stays mounted; *quillonctl modules check*"));
    EXPECT_EQ(mountedPackages().size(), 1U);

    helper.startAndWait();
    EXPECT_EQ(runModules({"check"}).err, "");
    expectTexts(mountedPackages(), {});
}

TEST_F(PackagesAfterAnEnd, OfAModuleThatBreaksDownInACheckAreNotMounted)
{
    leaveCrashesToPrograms();
    addModule("alpha", "");
    addModule("beta", "need=1\n");
    for (const std::string effect : {"crash", "exit", "hang"}) {
        writeFile("/etc/quillon-test/alpha.conf", "need=1\ncheckVersion.effect=" + effect + "\n");

        const Json::Value document =
            modulesDocument({"check", "--timeout", effect == "hang" ? "20" : "60"});

        EXPECT_EQ(moduleIn(document, "alpha")["decision"], "unusable") << effect;
        EXPECT_EQ(moduleIn(document, "beta")["decision"], "needed") << effect;
        expectTexts(mountedPackages(), {});
        EXPECT_EQ(readAll(kUpdateList), "beta betaemp\n");
    }
}

TEST_F(PackagesAfterAnEnd, ByAnInterruptionWhenTheUpdateIsOverAreNotMounted)
{
    addModule("alpha", "hang-in-allUpdateDone", GUIDED_MODULE);
    BackgroundLayer layer({"modules", "update", "--all"});
    ASSERT_TRUE(eventually([] { return wasAsked("alpha", "allUpdateDone("); }));

    layer.send(SIGINT);

    EXPECT_EQ(layer.wait(), 130) << layer.output();
    expectTexts(mountedPackages(), {});
    expectTexts(powerLog(), {"lock 2 for 35000 ms", "unlock 2"});
    EXPECT_FALSE(fs::exists(kUpdateList));
    EXPECT_EQ(semaphoreValue(), 1);
}

TEST_F(PackagesAfterAnEnd, WhileItWaitsForAnotherOneAreAsIfItHadNotBegun)
{
    addModule("alpha", "need=1\n");
    leaveSemaphoreBehind();
    BackgroundLayer layer({"modules", "update", "--all"});
    ASSERT_TRUE(layer.says("Waiting for another update on this device\n"));

    layer.send(SIGINT);

    EXPECT_EQ(layer.wait(), 130);
    expectTexts(mountedPackages(), {});
    expectTexts(powerLog(), {});
    EXPECT_FALSE(fs::exists(kUpdateList));
    EXPECT_TRUE(fs::exists(imageOf("alphaemp")));
}

TEST_F(PackagesAfterAnEnd, AreNotLookedForWithAnUpdateListThatCannotBeWritten)
{
    addModule("alpha", "need=1\n");
    // The list alone is on a full file system: /tmp may have the programs.
    ASSERT_EQ(::mount("tmpfs", "/mnt", "tmpfs", 0, "size=4k"), 0);
    writeFile("/mnt/list", "");
    std::ofstream("/mnt/full") << std::string(8192, 'x') << std::flush;
    writeFile(kUpdateList, "");
    ASSERT_EQ(::mount("/mnt/list", kUpdateList, nullptr, MS_BIND, nullptr), 0);

    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"check"}, {"update", "--all"}}) {
        expectText(modulesDocument(arguments, 9)["text"].asString(),
                   like("*the update list cannot be written whole*"));
        expectTexts(mountedPackages(), {});
    }
}

}  // namespace
}  // namespace quillon::test
