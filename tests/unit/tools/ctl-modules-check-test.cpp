// quillonctl modules check: the real program with test plug-ins. Packages that are really mounted
// are in tests/system.

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>

#include "support/files.h"
#include "support/texts.h"
#include "support/wait.h"
#include "unit/tools/ctl-modules-device.h"

namespace fs = std::filesystem;

using quillon::test::expectNoTextAmong;
using quillon::test::expectText;
using quillon::test::expectTextAmong;
using quillon::test::like;
using quillon::test::readAll;
using quillon::test::waitFor;
using quillon::test::writeFile;

class CtlModulesCheck : public CtlModules
{
protected:
    Json::Value check(const std::string& name, int exitCode)
    {
        return of(name, json({"check", "--source", "system"}, exitCode));
    }
};

TEST_F(CtlModulesCheck, TellsWhatIsRunningWhatIsOfferedAndHowLongItTakes)
{
    install("alpha", "need=1\nversion=1.5\n");
    offer("alpha", 12);

    const Json::Value document = json({"check", "--source", "system"});

    EXPECT_EQ(document["event"], "modules-check");
    EXPECT_EQ(document["source"], "system");
    const Json::Value alpha = of("alpha", document);
    EXPECT_EQ(alpha["decision"], "needed");
    EXPECT_EQ(alpha["running"], "1.5");
    EXPECT_EQ(alpha["offered"], "2.0");
    EXPECT_EQ(alpha["seconds"], 12);
}

TEST_F(CtlModulesCheck, TellsTheWholeVersionThatIsOfferedWhateverItHolds)
{
    install("alpha", "need=0\n");
    offer("alpha");
    const std::string file = "/lib/firmware/ext/alpha/info.json";
    std::string information = readAll(file);
    information.replace(information.find("2.0"), 3, "2\\u0000x");
    writeFile(file, information);

    EXPECT_EQ(check("alpha", 7)["offered"].asString(), std::string("2\0x", 3));
}

TEST_F(CtlModulesCheck, IsATableWithASumForPeople)
{
    install("alpha", "need=1\n");
    install("beta", "need=1\n");
    offer("alpha", 12);
    offer("beta", 30);

    const ModulesResult result = runModules({"check", "--source", "system"});

    expectText(result.out, like("*alpha  1.0      2.0      needs an update, about 12 s\n*"));
    expectText(result.out, like("*2 modules need an update, about 42 s\n"));
}

TEST_F(CtlModulesCheck, WithNothingToUpdateExitsWith7)
{
    install("alpha", "need=0\n");
    offer("alpha");

    const Json::Value alpha = check("alpha", 7);

    EXPECT_EQ(alpha["decision"], "up-to-date");
    EXPECT_EQ(alpha["offered"], "2.0");
}

TEST_F(CtlModulesCheck, LooksWhereItIsTold)
{
    install("alpha", "need=1\n");
    offer("alpha", 3, "/opt/usr/share/sbox/");

    EXPECT_EQ(of("alpha", json({"check", "--source", "shared"}))["decision"], "needed");
    EXPECT_EQ(check("alpha", 7)["decision"], "nothing-offered");
    EXPECT_EQ(of("alpha", json({"check", "--source", "usb"}, 7))["reason"], "no image");
    offer("alpha", 3, "/opt/media/USBDriveA/");
    EXPECT_EQ(of("alpha", json({"check", "--source", "usb"}))["decision"], "needed");
}

TEST_F(CtlModulesCheck, TellsThePlugInWhoseUpdateItIs)
{
    install("alpha", "need=1\n");
    for (const auto& [source, caller] : {std::pair{"usb", "0"}, {"system", "4"}, {"shared", "5"}}) {
        offer("alpha", 3, "/opt/media/USBDriveA/");
        offer("alpha", 3, "/lib/firmware/ext/");
        offer("alpha", 3, "/opt/usr/share/sbox/");
        fs::remove("/tmp/quillon-test-alpha.log");
        json({"check", "--source", source});
        expectTextAmong(callsOf("alpha"),
                        "setContext(\"alpha\", " + std::string(caller) + ", \"\")");
    }
}

TEST_F(CtlModulesCheck, SaysWhyAModuleCannotBeChecked)
{
    const std::string directory = "/lib/firmware/ext/alpha/";
    install("alpha", "need=1\n");
    offerWithWrongChecksum("alpha");
    EXPECT_EQ(check("alpha", 7)["decision"], "unsound");
    EXPECT_EQ(check("alpha", 7)["reason"], "its image does not match its checksum");

    std::ofstream(directory + "info.json") << "{";
    EXPECT_EQ(check("alpha", 7)["reason"], "its information file cannot be read");
    std::ofstream(directory + "info.json") << R"({"version":[]})";
    expectText(check("alpha", 7)["reason"].asString(), like("*an exception was raised: *"));
    fs::remove(directory + "info.json");
    EXPECT_EQ(check("alpha", 7)["reason"], "its information file is missing");
    offer("alpha");
    fs::remove(directory + "alpha.bin");
    EXPECT_EQ(check("alpha", 7)["reason"], "its image is missing");
    fs::remove_all(directory);
    EXPECT_EQ(check("alpha", 7)["decision"], "nothing-offered");
}

TEST_F(CtlModulesCheck, ChecksTheOthersBesideModulesThatAreBroken)
{
    install("alpha", "need=1\n");
    install("thrower", "need=1\ncheckVersion.effect=throw\n");
    install("lacking", "need=1\n", "without-checkVersion");
    install("ext-tool", "need=1\n");
    for (const char* name : {"alpha", "thrower", "lacking", "ext-tool"}) {
        offer(name);
    }

    const Json::Value document = json({"check", "--source", "system"});

    EXPECT_EQ(of("alpha", document)["decision"], "needed");
    EXPECT_EQ(of("thrower", document)["decision"], "unsound");
    EXPECT_EQ(of("thrower", document)["reason"], "an exception was raised: checkVersion");
    EXPECT_EQ(of("lacking", document)["decision"], "unusable");
    EXPECT_EQ(of("lacking", document)["reason"], "it has no entry checkVersion");
    EXPECT_EQ(of("ext-tool", document)["decision"], "by-name-only");
    expectNoTextAmong(callsOf("ext-tool"), like("*checkVersion*"));
}

TEST_F(CtlModulesCheck, WithUnusableModulesOnlyExitsWith11)
{
    install("lacking", "need=1\n", "without-checkVersion");
    std::ofstream("/usr/fwupdate/controls/broken.so") << "no library";
    offer("lacking");

    for (const char* source : {"system", "package"}) {
        const Json::Value document = json({"check", "--source", source}, 11);
        EXPECT_EQ(of("lacking", document)["decision"], "unusable");
        EXPECT_EQ(of("broken", document)["decision"], "unusable");
    }
    const ModulesResult result = runModules({"check", "--quiet"});
    EXPECT_EQ(result.exitCode, 11);
    expectText(result.err, like("*quillonctl: no module could be checked, each is unusable\n*"));

    install("ext-tool");
    json({"check"}, 7);
}

TEST_F(CtlModulesCheck, WithoutAnyModuleHasNothingToUpdateAndSaysSo)
{
    const ModulesResult result = runModules({"check"});

    EXPECT_EQ(result.exitCode, 7);
    EXPECT_EQ(result.out, "No modules are installed\n");
    EXPECT_EQ(json({"check"}, 7)["modules"].size(), 0U);
}

TEST_F(CtlModulesCheck, OfPackagesPublishesAnEmptyListWhenNoneIsThere)
{
    install("alpha", "need=1\n");
    install("lacking", "need=1\n", "without-checkVersion");

    const Json::Value document = json({"check"}, 7);

    EXPECT_EQ(document["source"], "package");
    EXPECT_EQ(of("alpha", document)["reason"], "no package");
    EXPECT_EQ(of("lacking", document)["decision"], "unusable");
    EXPECT_EQ(fs::file_size("/tmp/fwupdate-off-list.txt"), 0U);
}

TEST_F(CtlModulesCheck, OfAnotherSourceLeavesTheUpdateListAlone)
{
    install("alpha", "need=1\n");
    offer("alpha");

    check("alpha", 0);

    EXPECT_FALSE(fs::exists("/tmp/fwupdate-off-list.txt"));
}

TEST_F(CtlModulesCheck, RefusesAnUpdateListThatLeadsElsewhere)
{
    install("alpha");
    fs::create_symlink("/tmp/elsewhere", "/tmp/fwupdate-off-list.txt");

    EXPECT_EQ(json({"check"}, 9)["text"],
              "the update list's path leads elsewhere: /tmp/fwupdate-off-list.txt");
    EXPECT_EQ(json({"update", "--all"}, 9)["exitCode"], 9);
}

TEST_F(CtlModulesCheck, StopsBeforeTheNextModuleWhenItIsInterrupted)
{
    for (const char* name : {"a1", "a2", "a3"}) {
        install(name, "need=1\ncheckVersion.delay_ms=700\n");
        offer(name);
    }
    CtlProgram program({"modules", "check", "--source", "system"});
    const auto asked = [] {
        int count = 0;
        for (const char* name : {"a1", "a2", "a3"}) {
            for (const std::string& call : callsOf(name)) {
                count += call.rfind("checkVersion", 0) == 0 ? 1 : 0;
            }
        }
        return count;
    };
    waitFor("the first check", [&asked] { return asked() > 0; });
    program.sendSignal(SIGINT);

    const ModulesResult result = splitLog(program.finish());

    EXPECT_EQ(result.exitCode, 130);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "quillonctl: interrupted; nothing was updated\n");
    EXPECT_EQ(asked(), 1);
}
