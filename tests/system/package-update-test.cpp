// Updates from packages that are really mounted: the control layer, the privileged helper, the
// example modules, and beside them modules that hang and fail.

#include <gmock/gmock.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "support/open-way.h"
#include "support/process.h"
#include "support/texts.h"
#include "system/privileged-helper.h"
#include "system/system-test.h"
#include "unit/tools/ctl-modules-device.h"
#include "unit/verifier/test-keys.h"

namespace fs = std::filesystem;

namespace quillon::test {
namespace {

constexpr const char* kUpdateList = "/tmp/fwupdate-off-list.txt";
constexpr const char* kPowerLog = "/tmp/quillon-test-power.log";

/// The modules of the system tests, without the daemon and its stick.
struct Modules : SystemTest
{
    using SystemTest::flashed;
    using SystemTest::installModule;
    using SystemTest::installTestModule;
    using SystemTest::randomBytes;
    using SystemTest::setModule;
    using SystemTest::version;
};

class PackageUpdate : public PackageMount
{
protected:
    void SetUp() override
    {
        ::unsetenv("JOURNAL_STREAM");
        PackageMount::SetUp();
        if (!IsSkipped()) {
            helper.startAndWait();
        }
    }

    /// Puts a package for the module where a download would, and remembers its payload's size.
    static void addPackage(const std::string& module, int expectedSeconds,
                           const std::string& version = "2.0", const std::string& type = "squashfs")
    {
        const std::string payload = "/var/lib/quillon/privileged-test/" + module + ".payload";
        writeFile(payload, payloadOf(module));
        run(std::string(QUILLON_IMAGE_PROGRAM) + " package --name " + module + "emp --version " +
            version + " --payload " + payload + " --expected-time " +
            std::to_string(expectedSeconds) + " --type " + type + " --output " +
            imageOf(module + "emp"));
    }

    static std::string payloadOf(const std::string& module)
    {
        return module + Modules::randomBytes(50000, static_cast<unsigned>(module.size()));
    }

    static bool hasPackage(const std::string& module)
    {
        return fs::exists(imageOf(module + "emp"));
    }

    static std::vector<std::string> mountedPackages() { return mounts(kMountDirectory); }

    static void expectFlashed(const std::string& module)
    {
        EXPECT_EQ(Modules::version(module), "2.0") << module;
        EXPECT_TRUE(Modules::flashed(module) == payloadOf(module)) << module;
        EXPECT_FALSE(hasPackage(module)) << module;
    }

    static std::vector<std::string> powerLog() { return linesOf(kPowerLog, ""); }
};

TEST_F(PackageUpdate, OfFiveModulesGoesThroughWhileOneHangsAndOneFails)
{
    for (const char* name : {"tuner", "panel", "camera"}) {
        Modules::installModule(name);
        addPackage(name, 1);
    }
    // Updates of one process follow one another, so the module behind the one that hangs begins
    // 0.6 s late, within the 3 s that it has.
    const std::string hanging = unique("hanging");
    const std::string failing = unique("failing");
    Modules::installTestModule(hanging, "need=1\ndoUpdate.delay_ms=3600\n");
    Modules::installTestModule(failing, "need=1\ndoUpdate.result=9\ndoUpdate.delay_ms=100\n");
    addPackage(hanging, 1);
    addPackage(failing, 1);

    const ModulesResult result = runModules({"update", "--all"});

    EXPECT_EQ(result.exitCode, 6) << result.out << result.err << result.log;
    expectText(result.err, like("quillonctl: not updated as wanted:*"));
    for (const char* name : {"tuner", "panel", "camera"}) {
        expectFlashed(name);
        EXPECT_THAT(result.out,
                    testing::ContainsRegex("\n" + std::string(name) + " +2.0 +updated"));
    }
    EXPECT_THAT(result.out, testing::ContainsRegex("\n" + failing +
                                                   " +1.0 +failed: the module's own code is 9"));
    EXPECT_THAT(result.out, testing::ContainsRegex("\n" + hanging + " +2.0 +timed out: "));
    expectText(result.log, like("*Error : " + hanging + " update timeout*"));
    EXPECT_TRUE(hasPackage(failing));

    expectTexts(powerLog(), {"lock 2 for 30000 ms", "unlock 2"});
    EXPECT_FALSE(fs::exists(kUpdateList));
    expectTexts(mountedPackages(), {});
    EXPECT_EQ(loopDevicesOf(hanging + "emp") + loopDevicesOf(failing + "emp"), 0U);
    expectTextAmong(callsOfModule(failing), "allUpdateDone()");
}

TEST_F(PackageUpdate, LeavesMountedOnlyWhatIsStillBeingFlashedFrom)
{
    Modules::installModule("tuner");
    addPackage("tuner", 1, "1.0");
    Modules::installTestModule("hanging", "need=1\ndoUpdate.effect=hang\n");
    addPackage("hanging", 0);

    const Json::Value document = modulesDocument({"update", "--all"}, 13);

    EXPECT_EQ(moduleIn(document, "tuner")["outcome"], "not-needed");
    EXPECT_EQ(moduleIn(document, "hanging")["outcome"], "timed-out");
    EXPECT_EQ(moduleIn(document, "hanging")["reason"], "it is still being updated");
    expectTexts(mountedPackages(), {like("*" + std::string(mountPointOf("hangingemp")) + "*")});
}

TEST_F(PackageUpdate, OfACheckPublishesTheListAndLeavesNothingMounted)
{
    Modules::installModule("tuner");
    Modules::installModule("panel");
    addPackage("tuner", 12);
    addPackage("panel", 3, "1.0", "ext4");
    Modules::installTestModule("alpha", "need=1\n");

    const Json::Value document = modulesDocument({"check"});

    const Json::Value tuner = moduleIn(document, "tuner");
    EXPECT_EQ(tuner["decision"], "needed");
    EXPECT_EQ(tuner["running"], "1.0");
    EXPECT_EQ(tuner["offered"], "2.0");
    EXPECT_EQ(tuner["seconds"], 12);
    EXPECT_EQ(moduleIn(document, "panel")["decision"], "up-to-date");
    EXPECT_EQ(moduleIn(document, "alpha")["reason"], "no package");
    expectTexts(linesOf(kUpdateList, ""), {"tuner tuneremp"});
    expectTexts(mountedPackages(), {});
    expectTexts(powerLog(), {});
    EXPECT_TRUE(hasPackage("tuner"));
}

TEST_F(PackageUpdate, GoesModuleByModuleWhereOneRaisesAnException)
{
    Modules::installModule("tuner");
    addPackage("tuner", 1);
    for (const char* name : {"thrower", "tbrower", "zthrower"}) {
        Modules::installTestModule(name, "need=1\ncheckVersion.effect=throw\n");
        addPackage(name, 1);
    }

    EXPECT_EQ(moduleIn(modulesDocument({"check"}), "tuner")["decision"], "needed");
    expectTexts(mountedPackages(), {});
    const Json::Value document = modulesDocument({"update", "--all"}, 6);

    EXPECT_EQ(moduleIn(document, "tuner")["outcome"], "updated");
    EXPECT_EQ(moduleIn(document, "thrower")["outcome"], "failed");
    EXPECT_EQ(moduleIn(document, "thrower")["reason"], "an exception was raised: checkVersion");
    expectFlashed("tuner");
    expectTexts(mountedPackages(), {});
}

TEST_F(PackageUpdate, EndsTheRunThatAModuleBreaksOffWhenItIsToldOfTheEnd)
{
    Modules::installTestModule("alpha",
                               "need=1\ndoUpdate.delay_ms=100\nallUpdateDone.effect=throw\n");
    addPackage("alpha", 1);

    const ModulesResult result = runModules({"update", "--all"});

    EXPECT_EQ(result.exitCode, 0);
    expectText(result.err, like("*warning: not every module was told that the run is over*"));
    expectTexts(powerLog(), {"lock 2 for 6000 ms", "unlock 2"});
    EXPECT_FALSE(fs::exists(kUpdateList));
    EXPECT_FALSE(hasPackage("alpha"));
}

TEST_F(PackageUpdate, OfOneModuleLeavesTheOthersAlone)
{
    Modules::installModule("tuner");
    Modules::installModule("panel");
    addPackage("tuner", 1);
    addPackage("panel", 1);

    EXPECT_EQ(moduleIn(modulesDocument({"update", "tuner"}), "tuner")["running"], "2.0");

    expectFlashed("tuner");
    EXPECT_EQ(Modules::version("panel"), "1.0");
    EXPECT_TRUE(hasPackage("panel"));
    expectTexts(mountedPackages(), {});
    expectTexts(powerLog(), {});
}

TEST_F(PackageUpdate, ThatFailsOrIsNotNeededLeavesThePackageButUnmountsIt)
{
    Modules::installTestModule("failing", "need=1\ndoUpdate.result=9\ndoUpdate.delay_ms=100\n");
    Modules::installTestModule("same", "need=0\n");
    addPackage("failing", 1);
    addPackage("same", 1);

    EXPECT_EQ(moduleIn(modulesDocument({"update", "failing"}, 6), "failing")["reason"],
              "the module's own code is 9");
    EXPECT_EQ(moduleIn(modulesDocument({"update", "same"}), "same")["outcome"], "not-needed");

    expectTexts(mountedPackages(), {});
    EXPECT_TRUE(hasPackage("failing"));
    EXPECT_TRUE(hasPackage("same"));
}

TEST_F(PackageUpdate, SaysWhatKeepsAPackageFromBeingUsed)
{
    Modules::installTestModule("alpha", "need=1\n");
    Modules::installTestModule("beta", "need=1\n");
    writeFile(imageOf("alphaemp"), std::string(8192, 'x'));
    fs::create_directories(mountPointOf("betaemp"));
    addSquashfs("betaemp");

    const Json::Value document = modulesDocument({"check"}, 9);

    EXPECT_EQ(moduleIn(document, "alpha")["reason"], "its package cannot be mounted");
    expectText(moduleIn(document, "alpha")["remedy"].asString(),
               like("the package alphaemp of alpha cannot be mounted; \"quillonctl doctor\" *"));
    EXPECT_TRUE(moduleIn(document, "beta")["remedy"].isNull());
    EXPECT_EQ(moduleIn(document, "beta")["reason"], "its package has no image");
    expectTexts(mountedPackages(), {});
}

TEST_F(PackageUpdate, IsNotTakenForNotNeededWhileThePackageIsInUse)
{
    Modules::installModule("tuner");
    addPackage("tuner", 1);
    fs::create_directories(mountPointOf("tuneremp"));
    ASSERT_EQ(mountPackage("tuneremp"), kDone) << helper.log();
    const int inUse =
        ::open((mountPointOf("tuneremp") + "/info.json").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_NE(inUse, -1);

    const Json::Value checked = moduleIn(modulesDocument({"check"}, 9), "tuner");
    EXPECT_EQ(checked["decision"], "unsound");
    EXPECT_EQ(checked["reason"], "its package cannot be mounted");
    const ModulesResult update = runModules({"update", "tuner"});
    EXPECT_EQ(update.exitCode, 6);
    expectText(update.out, like("*failed: its package cannot be mounted*"));
    expectText(update.err, like("*warning: the package of tuner stays mounted; *fuser -vm "
                                "/opt/usr/apps/appbinarymanager/emps/tuneremp*"));
    EXPECT_EQ(mountedPackages().size(), 1U);

    ::close(inUse);
    EXPECT_EQ(moduleIn(modulesDocument({"update", "tuner"}), "tuner")["outcome"], "updated");
    EXPECT_EQ(Modules::version("tuner"), "2.0");
    expectTexts(mountedPackages(), {});
}

TEST_F(PackageUpdate, ByAnOrdinaryUserBesideADaemonOfThatUserNeedsTheHelperOnly)
{
    constexpr uid_t kUser = 1234;
    constexpr gid_t kGroup = 2345;
    if (asUser(kUser, {kGroup}, [] { return 0; }) != 0) {
        GTEST_SKIP() << "there are no other users here";
    }
    if (!openWayTo(QUILLON_SERVICE_PROGRAM)) {
        GTEST_SKIP() << "another user may not walk to the built programs";
    }
    ASSERT_EQ(helper.end(), 0);
    helper.startAndWait({"--user", std::to_string(kUser)});
    Modules::installModule("tuner");
    addPackage("tuner", 1);
    std::ofstream{kLabellingReady};
    // The package directory and what the modules flash into are that user's; nothing else is.
    ASSERT_TRUE(succeeds("chown -R 1234:2345 /opt/usr/apps/appbinarymanager /var/lib/quillon"));

    constexpr int kNotReady = 100;
    const int exitCode = asUser(kUser, {kGroup}, [] {
        Daemon daemon;
        daemon.start();
        const bool ready = daemon.becomesReady();
        const int code = ready ? runModules({"update", "--all"}).exitCode : kNotReady;
        daemon.kill();
        return code;
    });

    EXPECT_EQ(exitCode, 0);
    expectFlashed("tuner");
    expectTexts(mountedPackages(), {});
}

TEST_F(PackageUpdate, WithoutThePrivilegedHelperFailsCleanly)
{
    ASSERT_EQ(helper.end(), 0);
    Modules::installModule("tuner");
    addPackage("tuner", 1);

    const Json::Value document = modulesDocument({"update", "--all"}, 6);

    EXPECT_EQ(moduleIn(document, "tuner")["outcome"], "failed");
    EXPECT_EQ(moduleIn(document, "tuner")["reason"], "its package cannot be mounted");
    EXPECT_EQ(Modules::version("tuner"), "1.0");
    EXPECT_TRUE(hasPackage("tuner"));
}

TEST_F(PackageUpdate, ThatCannotBeMountedIsAnErrorWithThePackageAndTheNextCommand)
{
    ASSERT_EQ(helper.end(), 0);
    Modules::installModule("tuner");
    addPackage("tuner", 1);

    const ModulesResult check = runModules({"check"});

    EXPECT_EQ(check.exitCode, 9);
    expectNoText(check.out, like("*No module needs*"));
    const auto remedy = like(
        "*quillonctl: the package tuneremp of tuner cannot be mounted; "
        "\"quillonctl doctor\" *, and its log (standard error) tells why*\n");
    expectText(check.err, remedy);
    expectText(runModules({"update", "tuner"}).err, remedy);
    expectText(runModules({"update", "--all"}).err, remedy);
}

TEST_F(PackageUpdate, OfAnotherModuleIsStillFoundBesideAPackageThatCannotBeMounted)
{
    Modules::installModule("tuner");
    addPackage("tuner", 1);
    Modules::installTestModule("alpha", "need=1\n");
    writeFile(imageOf("alphaemp"), std::string(8192, 'x'));

    const ModulesResult check = runModules({"check"});

    EXPECT_EQ(check.exitCode, 0);
    expectText(check.out, like("*\n1 module needs an update, about 1 s\n"));
    expectText(check.err, like("quillonctl: the package alphaemp of alpha cannot be mounted; *"));
}

TEST_F(PackageUpdate, BesideAnotherOneLeavesItsPackageMounted)
{
    Modules::installTestModule("alpha", "need=1\ndoUpdate.effect=hang\n");
    addPackage("alpha", 600);
    const Process first({QUILLONCTL_PROGRAM, "modules", "update", "alpha"});
    ASSERT_TRUE(first.says("Updating alpha\n")) << first.err();
    const std::vector<std::string> mounted = mounts(kMountDirectory);
    EXPECT_EQ(mounted.size(), 1U);

    const ModulesResult check = runModules({"check"});
    EXPECT_EQ(check.exitCode, 8);
    expectText(check.err, like("quillonctl: another control layer is updating: process * (*); "
                               "\"quillonctl progress --follow\" shows how far it is\n"));
    for (const char* which : {"--all", "alpha"}) {
        Process second({QUILLONCTL_PROGRAM, "modules", "update", which});
        EXPECT_TRUE(second.says("Waiting: the packages are in use by process ")) << second.err();
        second.kill(SIGINT);
        EXPECT_EQ(second.wait(), 130);
    }
    EXPECT_EQ(mounts(kMountDirectory), mounted);
}

}  // namespace
}  // namespace quillon::test
