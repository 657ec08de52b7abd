// quillonctl modules list, version, progress and download: the real program with test plug-ins.

#include <gmock/gmock.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "support/texts.h"
#include "unit/tools/ctl-modules-device.h"
#include "unit/tools/ctl-records.h"

using testing::ContainsRegex;

using quillon::test::expectText;
using quillon::test::like;

class CtlModulesList : public CtlModules
{
protected:
    std::string reasonOf(const std::string& name)
    {
        const Json::Value module = of(name, json({"list"}));
        EXPECT_EQ(module["kind"], "unusable");
        return module["reason"].asString();
    }
};

TEST_F(CtlModulesList, TellsOfEveryModuleWhatItIsAndWhatIsRunning)
{
    install("alpha", "empid=alphaempX\nversion=1.5\n");
    install("ext-tool", "version=7\n");

    const Json::Value document = json({"list"});

    EXPECT_EQ(document["event"], "modules");
    const Json::Value alpha = of("alpha", document);
    EXPECT_EQ(alpha["kind"], "firmware");
    EXPECT_EQ(alpha["running"], "1.5");
    EXPECT_EQ(alpha["firmware"], "alphaX");
    EXPECT_EQ(alpha["package"], "alphaempX");
    EXPECT_EQ(alpha["downloaded"], false);
    const Json::Value tool = of("ext-tool", document);
    EXPECT_EQ(tool["kind"], "process");
    EXPECT_EQ(tool["running"], "7");
    EXPECT_FALSE(tool.isMember("package"));
}

TEST_F(CtlModulesList, IsATableForPeople)
{
    install("alpha");
    installFile("broken", "this is no library");

    const ModulesResult result = runModules({"list"});

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.err, "");
    expectText(result.out, like("NAME    RUNNING  STATE\n*"));
    expectText(result.out, like("*alpha   1.0      no package\n*"));
    expectText(result.out, like("*broken  -        unusable: it does not load: *"));
}

TEST_F(CtlModulesList, SaysWhenAPackageIsHere)
{
    install("alpha");
    installFile("../../../opt/usr/apps/appbinarymanager/x", "");
    std::filesystem::rename("/opt/usr/apps/appbinarymanager/x.so",
                            "/opt/usr/apps/appbinarymanager/alphaemp.img");

    EXPECT_EQ(of("alpha", json({"list"}))["downloaded"], true);
    expectText(runModules({"list"}).out, like("*alpha  1.0      package is here\n*"));
}

TEST_F(CtlModulesList, WithoutModulesSaysSo)
{
    EXPECT_EQ(runModules({"list"}).out, "No modules are installed\n");
    EXPECT_TRUE(json({"list"})["modules"].isArray());
}

TEST_F(CtlModulesList, WithoutAModuleDirectoryExitsWith9)
{
    std::filesystem::remove_all("/usr/fwupdate/controls");

    EXPECT_EQ(json({"list"}, 9)["text"],
              "the module directory cannot be read: /usr/fwupdate/controls/");
}

TEST_F(CtlModulesList, QuietSaysNothing)
{
    install("alpha");

    EXPECT_EQ(runModules({"list", "--quiet"}).out, "");
}

TEST_F(CtlModulesList, ShowsAModuleThatDoesNotLoadWithTheLinkersReason)
{
    installFile("broken", "this is no library");

    expectText(reasonOf("broken"), like("it does not load: *broken.so*"));
}

TEST_F(CtlModulesList, ShowsWhichRequiredEntryIsMissing)
{
    for (const std::string entry :
         {"setContext", "getEMPID", "getActiveVersion", "checkVersion", "doUpdate"}) {
        install("alpha", "", "without-" + entry);
        EXPECT_EQ(reasonOf("alpha"), "it has no entry " + entry);
    }
}

TEST_F(CtlModulesList, ShowsWhatIsWrongWithAnIdentifier)
{
    install("alpha", "empid=\n");
    EXPECT_EQ(reasonOf("alpha"), "its package identifier is empty");
    install("alpha", "empid=alpha-emp\n");
    EXPECT_EQ(reasonOf("alpha"),
              "its package identifier has other characters than ASCII letters and digits: "
              "alpha-emp");
    install("alpha", "empid=alphaEMP\n");
    EXPECT_EQ(reasonOf("alpha"), "its package identifier does not contain \"emp\": alphaEMP");
}

TEST_F(CtlModulesList, LoadsTheOthersWhenAModuleRaisesAnExceptionWhileItIsLoaded)
{
    for (const char* name : {"a1", "a2", "a3", "a4"}) {
        install(name, "setContext.effect=none\n");
    }
    install("thrower", "setContext.effect=throw\n");
    install("unknown", "getEMPID.effect=throw-unknown\n");

    const Json::Value document = json({"list"});

    for (const char* name : {"a1", "a2", "a3", "a4"}) {
        EXPECT_EQ(of(name, document)["kind"], "firmware") << name;
    }
    EXPECT_EQ(of("thrower", document)["reason"], "an exception was raised: setContext");
    EXPECT_EQ(of("unknown", document)["reason"], "an exception was raised");
}

TEST_F(CtlModulesList, LeavesOutAVersionThatThePlugInDoesNotTell)
{
    install("thrower", "getActiveVersion.effect=throw\n");
    install("refuser", "getActiveVersion.result=1\n");

    const Json::Value document = json({"list"});

    EXPECT_EQ(of("thrower", document)["kind"], "firmware");
    EXPECT_FALSE(of("thrower", document).isMember("running"));
    EXPECT_FALSE(of("refuser", document).isMember("running"));
}

TEST_F(CtlModulesList, LetsNoPlugInBreakTheTable)
{
    install("alpha", "version=1\x1b[2Jx\n");

    expectText(runModules({"list"}).out, like("*alpha  1?[2Jx*"));
}

TEST_F(CtlModulesList, VersionIsTheVersionAlone)
{
    install("alpha", "version=1.5\n");

    EXPECT_EQ(runModules({"version", "alpha"}).out, "1.5\n");
    const Json::Value document = json({"version", "alpha"});
    EXPECT_EQ(document["event"], "module-version");
    EXPECT_EQ(document["name"], "alpha");
    EXPECT_EQ(document["version"], "1.5");
}

TEST_F(CtlModulesList, VersionThatThePlugInDoesNotTellExitsWith12)
{
    install("alpha", "getActiveVersion.result=-1\n");

    const ModulesResult result = runModules({"version", "alpha"});

    EXPECT_EQ(result.exitCode, 12);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "quillonctl: the module alpha does not tell its version\n");
}

TEST_F(CtlModulesList, ProgressIsThePlugInsOwn)
{
    install("alpha", "progress=42\n");

    EXPECT_EQ(runModules({"progress", "alpha"}).out, "42 %\n");
    EXPECT_EQ(json({"progress", "alpha"})["percent"], 42);
}

TEST_F(CtlModulesList, ProgressThatThePlugInDoesNotTellExitsWith12)
{
    install("alpha", "", "without-getUpdateProgress");
    install("thrower", "getUpdateProgress.effect=throw\n");

    EXPECT_EQ(json({"progress", "alpha"}, 12)["text"],
              "the module alpha does not tell its progress");
    EXPECT_EQ(runModules({"progress", "thrower"}).exitCode, 12);
}

TEST_F(CtlModulesList, AnUnknownNameExitsWith10AndAnUnusableModuleWith11)
{
    install("alpha", "", "without-doUpdate");
    for (const char* verb : {"version", "progress", "update"}) {
        const Json::Value unknown = json({verb, "alph"}, 10);
        EXPECT_EQ(unknown["event"], "error");
        EXPECT_EQ(unknown["exitCode"], 10);
        EXPECT_EQ(unknown["text"], "there is no module alph");
        EXPECT_EQ(json({verb, "alpha"}, 11)["text"],
                  "the module alpha is unusable: it has no entry doUpdate");
    }
}

TEST_F(CtlModulesList, DownloadThatThePlatformDoesNotAcceptExitsWith14)
{
    install("alpha");
    install("broken", "", "without-doUpdate");
    install("ext-tool");

    const ModulesResult result = runModules({"download"});

    EXPECT_EQ(result.exitCode, 14);
    expectText(result.out, like("Downloading 1 package\nalpha: not downloaded, *"));
    EXPECT_EQ(result.err, "quillonctl: not downloaded: alpha\n");
}

TEST_F(CtlModulesList, WrongUsageIsOneLineAndExitsWith2)
{
    const std::vector<std::vector<std::string>> wrong = {
        {},
        {"frobnicate"},
        {"update"},
        {"update", "alpha", "--all"},
        {"update", "alpha", "beta"},
        {"version"},
        {"progress"},
        {"list", "--source", "usb"},
        {"check", "--source", "floppy"},
    };
    for (const std::vector<std::string>& arguments : wrong) {
        const ModulesResult result = runModules(arguments);
        EXPECT_EQ(result.exitCode, 2) << testing::PrintToString(arguments);
        EXPECT_EQ(result.out, "");
        EXPECT_THAT(result.err, ContainsRegex("^quillonctl: .* \\(see quillonctl --help\\)\n$"));
    }
}

/// Beside a service that has loaded "alpha", could not read "beta", and has not seen any other.
class CtlModulesListBesideTheService : public CtlModules
{
protected:
    static constexpr uid_t kStranger = 61234;

    CtlModulesListBesideTheService()
    {
        install("alpha");
        install("beta");
        recordStart(getpid());
    }

    static void recordStart(pid_t service)
    {
        const std::string began = "{\"event\":\"began\",\"clock\":1e9,\"pid\":";
        record("start", began + std::to_string(service) + "}\n" +
                            recorded("loading", "loaded", "alpha", R"("result":0)") +
                            recorded("loading", "loaded", "beta",
                                     R"("result":-1,"reason":"not-loadable","detail":"denied")") +
                            "{\"event\":\"serving\",\"clock\":1e9,\"result\":0}\n");
    }
};

TEST_F(CtlModulesListBesideTheService, TellsWhichModulesTheServiceDoesWithout)
{
    install("gamma");
    install("ext-tool");

    const std::string out = runModules({"list"}).out;

    expectText(out, like("*\nalpha     1.0      no package\n*"));
    expectText(out, like("*\nbeta      1.0      unusable to the service: it does not load: denied; "
                         "no package\n*"));
    expectText(out, like("*\ngamma     1.0      no package; the service runs without it until its "
                         "restart\n*"));
    expectText(out, like("*\next-tool  1.0      process module\n*"));
    const Json::Value document = json({"list"});
    EXPECT_EQ(of("alpha", document)["service"], "loaded");
    EXPECT_EQ(of("beta", document)["service"], "refused");
    EXPECT_EQ(of("beta", document)["serviceReason"], "it does not load: denied");
    EXPECT_EQ(of("gamma", document)["service"], "not-seen");
    EXPECT_FALSE(of("ext-tool", document).isMember("service"));
}

TEST_F(CtlModulesListBesideTheService, TellsWhatOnlyTheServiceCanUse)
{
    install("alpha", "setContext.result=1\nsetContext.effect=throw\n");
    std::filesystem::remove("/usr/fwupdate/controls/beta.so");

    const std::string out = runModules({"list"}).out;

    expectText(out,
               like("*\nalpha  -        the service has loaded it; unusable here: an exception "
                    "was raised: setContext\n*"));
    expectText(out, like("*\nbeta   -        unusable to the service: it does not load: denied; "
                         "unusable: this user does not see it in /usr/fwupdate/controls/\n*"));
}

TEST_F(CtlModulesListBesideTheService, TellsAStrangerWhatHeMayNotRead)
{
    if (!canRunCtlAs(kStranger)) {
        GTEST_SKIP() << "there is only one user here";
    }
    chmod("/usr/fwupdate/controls/alpha.so", 0600);
    chmod("/opt/usr/apps/appbinarymanager", 0700);

    const CtlResult file = runCtl({"modules", "list"}, kStranger);
    chmod("/usr/fwupdate/controls", 0700);
    const CtlResult directory = runCtl({"modules", "list"}, kStranger);

    EXPECT_EQ(file.exitCode, 0);
    expectText(file.out,
               like("*\nalpha  -        the service has loaded it; unusable here: it does "
                    "not load: *Permission denied\n*"));
    expectText(file.out, like("*\nbeta *; this user may not look for its package in "
                              "/opt/usr/apps/appbinarymanager/\n*"));
    EXPECT_EQ(directory.exitCode, 0);
    expectText(directory.out,
               like("*\nalpha  -        the service has loaded it; unusable here: this user does "
                    "not see it in /usr/fwupdate/controls/\n*"));
}

TEST_F(CtlModulesListBesideTheService, TellsNothingOfOneThatIsNoMore)
{
    recordStart(0x3ffffff);

    expectText(runModules({"list"}).out, like("*\nbeta   1.0      no package\n*"));
    EXPECT_FALSE(of("beta", json({"list"})).isMember("service"));
}
