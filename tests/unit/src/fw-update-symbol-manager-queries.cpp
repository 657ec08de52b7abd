// Questions about one module, and the download of all packages.

#include <array>
#include <cstring>
#include <future>
#include <string>
#include <vector>

#include "fw-update-symbol-manager-runs.h"

using namespace quillon::fakes;
using namespace quillon::test;

namespace {

constexpr std::size_t kNameSize = 127;
constexpr std::array<const char*, 6> kOtherNames = {"Alpha",    "alph",  "alphaa",
                                                    "alpha.so", "tuner", ""};

class Queries : public RunTest
{
protected:
    Queries()
    {
        version.fill('#');
        firmwareName.fill('#');
    }

    void install(const Module& description)
    {
        device.addModule("alpha", description);
        start();
    }

    /// The registry with "alpha" in it twice, the first with another firmware name.
    void installTwice()
    {
        install(Module().withEmpid("secondemp"));
        ASSERT_TRUE(manager->onCreate(true));
        device.changeModule("alpha", Module().withEmpid("firstemp").atProgress(1));
        ASSERT_EQ(manager->modules().front().loadSymbol("alpha"), 0);
        clear();
    }

    int askVersion(const std::string& name)
    {
        return manager->getFirmwareVersion(name, version.data(), firmwareName.data());
    }

    std::array<char, FW_PLUGIN_TEXT_SIZE> version{};
    std::array<char, kNameSize + 1> firmwareName{};
};

class DownloadAll : public RunTest
{
};

}  // namespace

TEST_F(Queries, TellVersionAndFirmwareName)
{
    install(Module().running("1.7").withEmpid("tuneremp").returning("getActiveVersion", 3));

    EXPECT_EQ(askVersion("alpha"), 3);

    EXPECT_STREQ(version.data(), "1.7");
    EXPECT_STREQ(firmwareName.data(), "tuner");
    expectSteps(
        {Plugin("alpha.setContext(\"alpha\", 2, \"\")"), Plugin("alpha.getActiveVersion()")});
}

TEST_F(Queries, NeverWriteBehindThe127BytesOfTheName)
{
    // The longest name that an identifier leaves.
    install(Module().withEmpid("emp" + std::string(125, 'n')));

    EXPECT_EQ(askVersion("alpha"), 0);

    EXPECT_EQ(std::string(firmwareName.data()), std::string(125, 'n'));
    EXPECT_EQ(firmwareName[kNameSize], '#');
}

TEST_F(Queries, CutALongerNameWithoutATerminator)
{
    // Without "emp" the module is not loaded, but its name stays and its entries are bound.
    install(Module().withEmpid(std::string(127, 'n')));

    EXPECT_EQ(askVersion("alpha"), 0);

    EXPECT_EQ(std::string(firmwareName.data(), kNameSize), std::string(kNameSize, 'n'));
    EXPECT_EQ(firmwareName[kNameSize], '#');
}

TEST_F(Queries, HandThePlugInTheCallersVersionBuffer)
{
    install(Module().running(std::string(FW_PLUGIN_TEXT_SIZE, 'v')));
    EXPECT_EQ(askVersion("alpha"), 0);
    EXPECT_EQ(std::string(version.data(), version.size()), std::string(FW_PLUGIN_TEXT_SIZE, 'v'));

    device.changeModule("alpha", Module().leavesVersionAlone());
    version.fill('#');
    EXPECT_EQ(askVersion("alpha"), 0);
    EXPECT_EQ(std::string(version.data(), version.size()), std::string(FW_PLUGIN_TEXT_SIZE, '#'));
}

TEST_F(Queries, ForTheVersionOfAnUnknownModuleWriteNothing)
{
    install(Module().withEmpid("tuneremp"));
    const auto versionBefore = version;
    const auto nameBefore = firmwareName;

    for (const char* name : kOtherNames) {
        EXPECT_EQ(askVersion(name), -1) << name;
    }

    EXPECT_EQ(version, versionBefore);
    EXPECT_EQ(firmwareName, nameBefore);
    expectSteps({});
}

TEST_F(Queries, ForAVersionAskOnlyTheFirstOfTwoModules)
{
    installTwice();

    EXPECT_EQ(askVersion("alpha"), 0);

    EXPECT_STREQ(firmwareName.data(), "first");
    expectTexts(askedFor("getActiveVersion"), {"alpha"});
}

TEST_F(Queries, FindAModuleBehindOthers)
{
    for (const char* name : {"mike", "alpha", "zulu"}) {
        device.addModule(name, Module().running("1 " + std::string(name)).atProgress(40));
    }
    start();

    for (const std::string& name : listedModules()) {
        unsigned int progress = 0;
        EXPECT_EQ(askVersion(name), 0);
        EXPECT_EQ(std::string(version.data()), "1 " + name);
        EXPECT_EQ(manager->getFirmwareUpdateProgress(name, &progress), 0);
    }

    EXPECT_EQ(askedFor("getActiveVersion"), listedModules());
    EXPECT_EQ(askedFor("getUpdateProgress"), listedModules());
}

TEST_F(Queries, TellTheProgress)
{
    install(Module().atProgress(44).returning("getUpdateProgress", 3));
    unsigned int progress = 0;

    EXPECT_EQ(manager->getFirmwareUpdateProgress("alpha", &progress), 3);

    EXPECT_EQ(progress, 44U);
    expectSteps({Plugin("alpha.getUpdateProgress()")});
}

TEST_F(Queries, ForTheProgressOfAnUnknownModuleWriteNothing)
{
    install(Module().withEmpid("tuneremp").atProgress(44));
    unsigned int progress = 7;

    for (const char* name : kOtherNames) {
        EXPECT_EQ(manager->getFirmwareUpdateProgress(name, &progress), -1) << name;
    }

    EXPECT_EQ(progress, 7U);
    expectSteps({});
}

TEST_F(Queries, ForAProgressAskOnlyTheFirstOfTwoModules)
{
    installTwice();
    unsigned int progress = 0;

    EXPECT_EQ(manager->getFirmwareUpdateProgress("alpha", &progress), 0);

    expectTexts(askedFor("getUpdateProgress"), {"alpha"});
}

TEST_F(Queries, ForTheProgressOfAModuleThatTellsNoneFail)
{
    install(Module().lacking("getUpdateProgress"));
    unsigned int progress = 7;

    EXPECT_EQ(manager->getFirmwareUpdateProgress("alpha", &progress), -1);

    EXPECT_EQ(progress, 7U);
}

TEST_F(Queries, TellTheProgressWhileTheUpdateRuns)
{
    Gate gate;
    addModule("alpha", Module().needsUpdate().atProgress(44).onUpdate(
                           [&gate](const char* /*path*/, unsigned long /*value*/) {
                               note("updating");
                               gate.pass();
                               awaitTimedWait();
                           }));
    start();
    auto updated = std::async(std::launch::async, [this] {
        return manager->doUpdateFirmware("alpha", CALLER_SYSTEM, noText);
    });
    awaitText("updating");

    unsigned int progress = 0;
    EXPECT_EQ(manager->getFirmwareUpdateProgress("alpha", &progress), 0);
    EXPECT_EQ(progress, 44U);

    gate.open();
    EXPECT_EQ(updated.get(), 0);
}

TEST_F(DownloadAll, AsksForEveryPackageInOrder)
{
    for (const char* name : {"mike", "alpha", "zulu"}) {
        addModule(name, Module());
    }
    start();
    const std::vector<std::string> names = listedModules();
    platform().download.always(
        [&names](const std::string& identifier) { return identifier != names[0] + "emp"; });

    EXPECT_EQ(manager->downloadEMPAll(), 0);

    expectTexts(logTexts(), {"Error: EMP ABM_DownloadAppBinary fail.(" + names[0] + "emp)",
                             "Request (" + names[1] + "emp) emp download",
                             "Request (" + names[2] + "emp) emp download"});
    EXPECT_EQ(callTexts().size(), 3U);
}

TEST_F(DownloadAll, PassesOverModulesThatAreNotLoaded)
{
    device.addModuleFile("broken", bytesOf("no library"));
    start();

    EXPECT_EQ(manager->downloadEMPAll(), 0);

    expectSteps({});
}
