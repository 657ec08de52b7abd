#include <climits>

#include "fw-update-symbol-manager-registry.h"
#include "support/checksum.h"

using namespace quillon::fakes;
using namespace quillon::test;

namespace {

constexpr int kUntouched = 4711;

std::string neededLine(const std::string& name, int seconds)
{
    return "Need Update [" + name + "] [" + std::to_string(seconds) + "]";
}

std::vector<std::string> linesThatBegin(const std::string& beginning)
{
    std::vector<std::string> lines;
    for (const std::string& line : logTexts()) {
        if (line.compare(0, beginning.size(), beginning) == 0) {
            lines.push_back(line);
        }
    }
    return lines;
}

/// The names of the modules that were handed a payload, in order.
std::vector<std::string> updatedModules()
{
    std::vector<std::string> names;
    for (const std::string& call : pluginTexts()) {
        const std::size_t entry = call.find(".doUpdate_decryption(");
        if (entry != std::string::npos) {
            names.push_back(call.substr(0, entry));
        }
    }
    return names;
}

class UsbRun : public RegistryTest
{
protected:
    UsbRun() { device.addVerifier(); }

    /// A module with an image of its own on the stick.
    void addModule(const std::string& name, const Module& module)
    {
        device.addModule(name, module);
        device.stick().addImage(name, Image());
    }

    /// Three modules that all need an update, in the order of the registry.
    std::vector<std::string> threeModules()
    {
        for (const char* name : {"mike", "alpha", "zulu"}) {
            addModule(name, Module().needsUpdate());
        }
        start();
        return listedModules();
    }

    void start()
    {
        ASSERT_TRUE(manager->getIsReady(true));
        clear();
    }

    int estimate()
    {
        total = kUntouched;
        return manager->getFirmwareUpdateTime(key, device.stick().path(), total);
    }

    int run() { return manager->doUpdateUSB(key, device.stick().path()); }

    int total = kUntouched;
};

class UsbEstimate : public UsbRun
{
};

}  // namespace

TEST_F(UsbEstimate, OfNoModulesIsZeroAndNothingToDo)
{
    start();

    EXPECT_EQ(estimate(), -1);

    EXPECT_EQ(total, 0);
    expectSteps({});
}

TEST_F(UsbEstimate, IsTheSumOfWhatTheModulesToUpdateTake)
{
    addModule("alpha", Module().needsUpdate().takesSeconds(30));
    addModule("bravo", Module().upToDate().takesSeconds(500));
    addModule("charlie", Module().needsUpdate().takesSeconds(45));
    start();

    EXPECT_EQ(estimate(), 0);

    EXPECT_EQ(total, 75);
    std::vector<std::string> expected;
    for (const std::string& name : listedModules()) {
        if (name != "bravo") {
            expected.push_back(neededLine(name, name == "alpha" ? 30 : 45));
        }
    }
    EXPECT_EQ(linesThatBegin("Need Update"), expected);
    expectStep(LogFrom("getFirmwareUpdateTime", ERROR, neededLine("alpha", 30)));
}

TEST_F(UsbEstimate, AsksEveryModuleInTheOrderOfTheRegistry)
{
    const std::vector<std::string> names = threeModules();
    device.changeModule(names[0], Module().returning("checkVersion", -1));

    estimate();

    std::vector<std::string> asked;
    for (const std::string& call : pluginTexts()) {
        const std::size_t entry = call.find(".checkVersion(");
        if (entry != std::string::npos) {
            asked.push_back(call.substr(0, entry));
        }
    }
    EXPECT_EQ(asked, names);
}

TEST_F(UsbEstimate, OfModulesThatAreUpToDateIsZeroAndNothingToDo)
{
    addModule("alpha", Module().upToDate().takesSeconds(30));
    start();

    EXPECT_EQ(estimate(), -1);

    EXPECT_EQ(total, 0);
    expectTexts(linesThatBegin("Need Update"), {});
}

TEST_F(UsbEstimate, CountsOnlyTheNeedOne)
{
    for (const int need : {-1, 0, 2, 100}) {
        addModule("alpha" + std::to_string(need + 1), Module().needs(need));
    }
    start();

    EXPECT_EQ(estimate(), -1);

    EXPECT_EQ(total, 0);
}

TEST_F(UsbEstimate, LeavesOutWhatHasNoImageOrIsNotLoaded)
{
    device.addModule("alpha", Module().needsUpdate());
    writeFile(device.modulePath("broken"), "this is no library");
    addModule("charlie", Module().needsUpdate().takesSeconds(7));
    start();

    EXPECT_EQ(estimate(), 0);

    EXPECT_EQ(total, 7);
}

TEST_F(UsbEstimate, OfZeroSecondsIsASuccess)
{
    addModule("alpha", Module().needsUpdate().takesSeconds(0));
    start();

    EXPECT_EQ(estimate(), 0);

    EXPECT_EQ(total, 0);
    expectTexts(linesThatBegin("Need Update"), {neededLine("alpha", 0)});
}

TEST_F(UsbEstimate, AddsNegativeTimesAsTheyAre)
{
    addModule("alpha", Module().needsUpdate().takesSeconds(30));
    addModule("bravo", Module().needsUpdate().takesSeconds(-50));
    start();

    EXPECT_EQ(estimate(), 0);

    EXPECT_EQ(total, -20);
}

TEST_F(UsbEstimate, WrapsWhereTheSumDoesNotFit)
{
    addModule("alpha", Module().needsUpdate().takesSeconds(INT_MAX));
    addModule("bravo", Module().needsUpdate().takesSeconds(1));
    start();

    EXPECT_EQ(estimate(), 0);

    EXPECT_EQ(total, INT_MIN);
}

TEST_F(UsbEstimate, BeginsAfreshEachTime)
{
    addModule("alpha", Module().needsUpdate().takesSeconds(30));
    start();
    EXPECT_EQ(estimate(), 0);

    EXPECT_EQ(estimate(), 0);
    EXPECT_EQ(total, 30);
    device.changeModule("alpha", Module().upToDate());
    EXPECT_EQ(estimate(), -1);
    EXPECT_EQ(total, 0);
}

TEST_F(UsbEstimate, HandsKeyAndPathToTheModules)
{
    device.addModule("alpha", Module().needsUpdate());
    start();

    manager->getFirmwareUpdateTime(nullptr, "/elsewhere/", total);
    manager->getFirmwareUpdateTime(key, nullptr, total);
    manager->getFirmwareUpdateTime(key, "/elsewhere/", total);

    expectTexts(logTexts(), {"Error: ckey  is nullptr", "Error: image_path is nullptr",
                             "Error: /elsewhere/alpha.bin open fail"});
}

TEST_F(UsbRun, OverNoModulesFails)
{
    start();

    EXPECT_EQ(run(), -1);

    expectSteps({});
}

TEST_F(UsbRun, UpdatesTheMarkedModulesInTheOrderOfTheRegistry)
{
    const std::vector<std::string> names = threeModules();
    ASSERT_EQ(estimate(), 0);

    EXPECT_EQ(run(), 0);

    EXPECT_EQ(updatedModules(), names);
    for (const std::string& name : names) {
        EXPECT_EQ(payloadsOf(name), std::vector<Bytes>{bytesOf("payload")});
    }
}

TEST_F(UsbRun, WithoutAnEstimateFindsNothingToDo)
{
    threeModules();

    EXPECT_EQ(run(), -1);

    expectSteps({});
}

TEST_F(UsbRun, WithoutAnEstimateGoesByTheMarksOfTheLastCheck)
{
    threeModules();
    const Bytes image = bytesOf("image");
    writeFile("/lib/firmware/ext/alpha/alpha.bin", image);
    writeFile("/lib/firmware/ext/alpha/info.json",
              "{\"version\": \"2.0\", \"crc\": " +
                  std::to_string(quillon::imageChecksum(0, image.data(), image.size())) + "}");
    for (FWUpdateSymbol& module : manager->modules()) {
        std::string none;
        if (module.getLibName() == "alpha") {
            ASSERT_EQ(module.isNeedUpdate(CALLER_SYSTEM, none.data()), 1);
        }
    }
    clear();

    EXPECT_EQ(run(), 0);

    expectTexts(updatedModules(), {"alpha"});
}

TEST_F(UsbRun, LeavesModulesAloneThatAreUpToDate)
{
    const std::vector<std::string> names = threeModules();
    device.changeModule(names[1], Module().upToDate());
    ASSERT_EQ(estimate(), 0);
    clear();

    EXPECT_EQ(run(), 0);

    expectTexts(updatedModules(), {names[0], names[2]});
    expectNoStep(Plugin(like(names[1] + ".*")));
}

TEST_F(UsbRun, GoesByTheMarksOfTheLastEstimate)
{
    const std::vector<std::string> names = threeModules();
    device.changeModule(names[0], Module().upToDate());
    ASSERT_EQ(estimate(), 0);
    device.changeModule(names[0], Module().needsUpdate());
    clear();

    EXPECT_EQ(run(), 0);

    expectTexts(updatedModules(), {names[1], names[2]});
}

TEST_F(UsbRun, StopsAtTheFirstFailure)
{
    const std::vector<std::string> names = threeModules();
    ASSERT_EQ(estimate(), 0);
    device.changeModule(names[1], Module().needsUpdate().returning("doUpdate_decryption", -1));
    clear();

    EXPECT_EQ(run(), -1);

    expectTexts(updatedModules(), {names[0], names[1]});
    expectLastSteps({LogFrom("doUpdateUSB", ERROR, "update fail [" + names[1] + "]")});
    expectNoStep(Plugin(like(names[2] + ".*")));
}

TEST_F(UsbRun, PassesOverAnyOtherCodeOfAModule)
{
    const std::vector<std::string> names = threeModules();
    ASSERT_EQ(estimate(), 0);
    device.changeModule(names[0], Module().needsUpdate().returning("doUpdate_decryption", 5));
    device.changeModule(names[1], Module().needsUpdate().returning("doUpdate_decryption", -2));

    EXPECT_EQ(run(), 0);

    EXPECT_EQ(updatedModules(), names);
    expectTexts(linesThatBegin("update fail"), {});
}

TEST_F(UsbRun, EndsWithTheCodeOfTheLastModule)
{
    const std::vector<std::string> names = threeModules();
    ASSERT_EQ(estimate(), 0);
    device.changeModule(names[2], Module().needsUpdate().returning("doUpdate_decryption", 5));

    EXPECT_EQ(run(), 5);
}

TEST_F(UsbRun, MayBeRepeatedWithTheSameMarks)
{
    const std::vector<std::string> names = threeModules();
    ASSERT_EQ(estimate(), 0);
    EXPECT_EQ(run(), 0);
    clear();

    EXPECT_EQ(run(), 0);

    EXPECT_EQ(updatedModules(), names);
}

TEST_F(UsbRun, HandsKeyAndPathToTheModules)
{
    addModule("alpha", Module().needsUpdate());
    start();
    ASSERT_EQ(estimate(), 0);
    clear();

    EXPECT_EQ(manager->doUpdateUSB(key, "/elsewhere/"), -1);
    EXPECT_EQ(manager->doUpdateUSB(nullptr, "/elsewhere/"), -1);

    expectTexts(logTexts(), {"Error: /elsewhere/alpha.bin file open", "update fail [alpha]",
                             "Error: ckey  is nullptr", "update fail [alpha]"});
}
