// Whether a module needs the update that a caller's source offers.

#include <json/json.h>

#include <climits>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "offered-firmware.h"

namespace quillon::test {
namespace {

using namespace fakes;

class UpdateDecision : public OfferedFirmware
{
protected:
    /// From the read-only system area, where nothing has to be mounted.
    int decide() { return OfferedFirmware::decide(CALLER_SYSTEM, argument); }

    /// From the module's package.
    int decideOnPackage() { return OfferedFirmware::decide(CALLER_SERVICE, argument); }

    static Step said(const std::string& text) { return LogFrom("isNeedUpdate", ERROR, text); }

    /// The steps of a plug-in that is asked for the active version.
    Steps saidNotNeeded(const std::string& version) const
    {
        return {
            plugin("setContext(\"tuner\", 2, \"\")"), plugin("getActiveVersion()"),
            said("Error: " + std::string(kPackage) + " not need update, version is " + version)};
    }

    void expectDecision(bool need, int seconds)
    {
        EXPECT_EQ(module.getNeedUpdate(), need);
        EXPECT_EQ(module.getExpectedUpdateTime(), seconds);
    }

    /// An earlier decision: needed, in 90 seconds.
    void decideEarlier()
    {
        offer(kSystemDirectory);
        ASSERT_EQ(install(Module().needsUpdate()), 0);
        ASSERT_EQ(decide(), 1);
        expectDecision(true, 90);
        clear();
    }

    const std::string imagePath = std::string(kSystemDirectory) + "/tunerA1.bin";
    const std::string informationPath = std::string(kSystemDirectory) + "/info.json";
    const Step tried = said("tunerA1 Firmware isNeedUpdateModules Try(tuner)");
    const Step checked = plugin("checkVersion(\"2.0\", need 0)");
};

TEST_F(UpdateDecision, ComesFromThePluginOnceTheImageIsSound)
{
    offer(kSystemDirectory);
    install(Module().needsUpdate());
    recordCalls({"stat", "fread", "prctl"});

    EXPECT_EQ(decide(), 1);

    const Step imageLookedAt = Call("stat(\"" + imagePath + "\") = 0");
    const Step informationLookedAt = Call("stat(\"" + informationPath + "\") = 0");
    expectSteps({tried, contextSet(4), imageLookedAt, informationLookedAt, informationLookedAt,
                 imageLookedAt, Call("fread(1, 32768) = 9"), Call("fread(1, 32768) = 0"),
                 imageLookedAt, checked});
    expectDecision(true, 90);
}

TEST_F(UpdateDecision, TellsTheRunningVersionWhenNoUpdateIsNeeded)
{
    decideEarlier();
    change(Module().upToDate().running("1.7"));
    offer(kSystemDirectory, Firmware().takesSeconds("30"));

    EXPECT_EQ(decide(), 0);

    expectSteps(Steps{tried, contextSet(4), checked} + saidNotNeeded("1.7"));
    expectDecision(false, 30);
}

TEST_F(UpdateDecision, IsHandedOnAsThePluginSaysIt)
{
    offer(kSystemDirectory);
    install(Module());
    for (const int need : {1, 2, INT_MAX}) {
        change(Module().needs(need));
        clear();

        EXPECT_EQ(decide(), need);

        expectSteps({tried, contextSet(4), checked});
        expectDecision(true, 90);
    }
}

TEST_F(UpdateDecision, ANegativeNeedCountsAsNeededAndIsLoggedAsNotNeeded)
{
    offer(kSystemDirectory);
    install(Module());
    for (const int need : {-1, -3, INT_MIN}) {
        change(Module().needs(need));
        clear();

        EXPECT_EQ(decide(), need);

        expectSteps(Steps{tried, contextSet(4), checked} + saidNotNeeded("1.0"));
        expectDecision(true, 90);
    }
}

TEST_F(UpdateDecision, APluginThatGivesNoAnswerNeedsNoUpdate)
{
    decideEarlier();
    change(Module().leavesNeedAlone());

    EXPECT_EQ(decide(), 0);

    expectDecision(false, 90);
}

TEST_F(UpdateDecision, AFailedVersionCheckLeavesTheAnswerAtNotNeeded)
{
    decideEarlier();
    change(Module().leavesNeedAlone().returning("checkVersion", 1));

    EXPECT_EQ(decide(), 0);

    expectSteps(
        Steps{tried, contextSet(4), checked, said("Error: tunerA1 Firmware CheckVersion Fail")} +
        saidNotNeeded("1.0"));
    expectDecision(false, 90);
}

TEST_F(UpdateDecision, AFailedVersionCheckMayStillHaveAnAnswer)
{
    offer(kSystemDirectory);
    install(Module().needsUpdate().returning("checkVersion", -1));

    EXPECT_EQ(decide(), 1);

    expectSteps({tried, contextSet(4), checked, said("Error: tunerA1 Firmware CheckVersion Fail")});
    expectDecision(true, 90);
}

TEST_F(UpdateDecision, GoesOnWhateverSetContextAnswers)
{
    offer(kSystemDirectory);
    install(Module().needsUpdate().returning("setContext", -1));

    EXPECT_EQ(decide(), 1);

    expectDecision(true, 90);
}

TEST_F(UpdateDecision, AMissingImageIsNamed)
{
    offer(kSystemDirectory);
    removeFile(imagePath);
    install(Module().needsUpdate());

    EXPECT_EQ(decide(), -1);

    expectSteps(
        {tried, contextSet(4), said("Error: Firmware binary file no exist (" + imagePath + ")")});
}

TEST_F(UpdateDecision, AMissingInformationFileIsNamed)
{
    offer(kSystemDirectory);
    removeFile(informationPath);
    install(Module().needsUpdate());

    EXPECT_EQ(decide(), -1);

    expectSteps({tried, contextSet(4),
                 said("Error: Firmware json file no exist (" + informationPath + ")")});
}

TEST_F(UpdateDecision, OfTwoMissingFilesTheImageIsNamed)
{
    install(Module().needsUpdate());

    EXPECT_EQ(decide(), -1);

    expectSteps(
        {tried, contextSet(4), said("Error: Firmware binary file no exist (" + imagePath + ")")});
}

TEST_F(UpdateDecision, AMissingImageIsNamedEvenBesideABrokenInformationFile)
{
    offer(kSystemDirectory, Firmware().information("not JSON"));
    removeFile(imagePath);
    install(Module().needsUpdate());

    EXPECT_EQ(decide(), -1);

    expectSteps(
        {tried, contextSet(4), said("Error: Firmware binary file no exist (" + imagePath + ")")});
}

TEST_F(UpdateDecision, ABrokenInformationFileIsAFailure)
{
    offer(kSystemDirectory, Firmware().information("not JSON"));
    install(Module().needsUpdate());

    EXPECT_EQ(decide(), -1);

    expectSteps({tried, contextSet(4),
                 LogFrom("loadInformation", ERROR,
                         "Error: json loadInformation fail.(" + informationPath + ")\n"),
                 said("Error: json information load fail")});
}

TEST_F(UpdateDecision, ADamagedImageIsRefusedBeforeThePluginIsAskedForIt)
{
    offer(kSystemDirectory, Firmware().statedCrc(Firmware().crc() + 1));
    install(Module().needsUpdate());

    EXPECT_EQ(decide(), -1);

    expectSteps({tried, contextSet(4), said("Error: tunerA1 Firmware CRC32 different")});
}

TEST_F(UpdateDecision, EveryBitOfTheChecksumCounts)
{
    install(Module().needsUpdate());
    for (unsigned int bit = 0; bit < 32; ++bit) {
        offer(kSystemDirectory, Firmware().statedCrc(Firmware().crc() ^ (1U << bit)));

        EXPECT_EQ(decide(), -1) << bit;
    }
}

TEST_F(UpdateDecision, AnEmptyImageHasTheChecksumZero)
{
    offer(kSystemDirectory, Firmware().image({}).statedCrc(0));
    install(Module().needsUpdate());

    EXPECT_EQ(decide(), 1);
}

TEST_F(UpdateDecision, StaysAsItWasWhenThereIsNoSoundImage)
{
    const std::vector<std::function<void()>> damages = {
        [this] { removeFile(imagePath); }, [this] { removeFile(informationPath); },
        [] { offer(kSystemDirectory, Firmware().information("not JSON")); },
        [] { offer(kSystemDirectory, Firmware().information(R"({"crc": -1})")); },
        [] { offer(kSystemDirectory, Firmware().statedCrc(1).takesSeconds("7")); }};
    decideEarlier();
    change(Module().upToDate());
    for (const auto& damage : damages) {
        offer(kSystemDirectory, Firmware().takesSeconds("8"));
        damage();

        EXPECT_EQ(decide(), -1);

        expectDecision(true, 90);
    }
}

TEST_F(UpdateDecision, StaysAsItWasWhenThePackageCannotBeMounted)
{
    decideEarlier();

    EXPECT_EQ(decideOnPackage(), -1);

    expectDecision(true, 90);
}

TEST_F(UpdateDecision, StaysAsItWasWhenAnExceptionLeaves)
{
    decideEarlier();
    const std::vector<std::string> entries = {"setContext", "checkVersion", "getActiveVersion"};
    for (const std::string& entry : entries) {
        change(Module().upToDate().throwing(entry));
        offer(kSystemDirectory, Firmware().takesSeconds("8"));
        const int before = openDescriptors();

        EXPECT_THROW(module.isNeedUpdate(CALLER_SYSTEM, argument), std::runtime_error) << entry;

        EXPECT_EQ(openDescriptors(), before);
        expectDecision(true, 90);
    }
    offer(kSystemDirectory, Firmware().information(R"({"version": [1], "expected_time": 8})"));
    EXPECT_THROW(module.isNeedUpdate(CALLER_SYSTEM, argument), Json::Exception);
    expectDecision(true, 90);
}

TEST_F(UpdateDecision, TheExpectedTimeIsKeptAs32Bits)
{
    const std::vector<std::pair<std::string, int>> times = {
        {"0", 0},
        {"2147483647", INT_MAX},
        {"2147483648", INT_MIN},
        {"4294967295", -1},
    };
    install(Module().needsUpdate());
    for (const auto& [text, seconds] : times) {
        offer(kSystemDirectory, Firmware().takesSeconds(text));

        EXPECT_EQ(decide(), 1);

        expectDecision(true, seconds);
    }
}

TEST_F(UpdateDecision, AnInformationFileThatSaysNothingHasItsDefaults)
{
    offer(kSystemDirectory, Firmware().image({}).information("{}"));
    install(Module().needsUpdate());

    EXPECT_EQ(decide(), 1);

    expectSteps({tried, contextSet(4), plugin("checkVersion(\"0000\", need 0)")});
    expectDecision(true, 300);
}

TEST_F(UpdateDecision, ARunningVersionMayFillItsBufferWithoutATerminator)
{
    const std::string version(128, 'v');
    offer(kSystemDirectory);
    install(Module().upToDate().running(version));

    EXPECT_EQ(decide(), 0);

    expectSteps(Steps{tried, contextSet(4), checked} + saidNotNeeded(version));
}

TEST_F(UpdateDecision, APluginThatTellsNoRunningVersionHasAnEmptyOne)
{
    offer(kSystemDirectory);
    install(Module().upToDate().leavesVersionAlone());

    EXPECT_EQ(decide(), 0);

    expectSteps(Steps{tried, contextSet(4), checked} + saidNotNeeded(""));
}

TEST_F(UpdateDecision, TheRunningVersionCountsEvenWhenItsEntryFails)
{
    offer(kSystemDirectory);
    install(Module().upToDate().running("1.7").returning("getActiveVersion", -1));

    EXPECT_EQ(decide(), 0);

    expectSteps(Steps{tried, contextSet(4), checked} + saidNotNeeded("1.7"));
}

TEST_F(UpdateDecision, AModuleThatIsNotLoadedIsCheckedAllTheSame)
{
    ASSERT_EQ(install(Module().upToDate().withEmpid("tunerA1")), -1) << "it names no package";
    ASSERT_FALSE(module.isLoaded());
    offer(kSystemDirectory);

    EXPECT_EQ(decide(), 0);

    expectSteps({tried, contextSet(4), checked, plugin("setContext(\"tuner\", 2, \"\")"),
                 plugin("getActiveVersion()"), said("Error:  not need update, version is 1.0")});
    expectDecision(false, 90);
}

TEST_F(UpdateDecision, AProcessModuleHasNoPackage)
{
    device.addModule("EXT-tool", Module().needsUpdate());
    FWUpdateSymbol process("EXT-tool");
    ASSERT_EQ(process.loadSymbol("EXT-tool"), 0);
    clear();

    EXPECT_EQ(process.isNeedUpdate(CALLER_SERVICE, argument), -1);

    expectSteps({said(" Firmware isNeedUpdateModules Try(EXT-tool)"),
                 LogFrom("mountEMPImage", ERROR, "Error: file no exist ()")});
}

TEST_F(UpdateDecision, APackageIsMountedFirstAndStaysMounted)
{
    offerPackage();
    install(Module());
    for (const int need : {1, 0}) {
        change(Module().needs(need));
        clear();

        EXPECT_EQ(decideOnPackage(), need);

        expectSteps(Steps{tried} + mountedAnew + Steps{contextSet(2), checked} +
                    (need == 1 ? Steps{} : saidNotNeeded("1.0")));
        EXPECT_TRUE(isThere(kPackage));
    }
}

TEST_F(UpdateDecision, APackageStaysMountedWhenWhatItHoldsIsNotSound)
{
    offerPackage(Firmware().statedCrc(1));
    install(Module());

    EXPECT_EQ(decideOnPackage(), -1);

    expectSteps(Steps{tried} + mountedAnew +
                Steps{contextSet(2), said("Error: tunerA1 Firmware CRC32 different")});
}

TEST_F(UpdateDecision, ThePluginIsNotAskedWhenThePackageCannotBeMounted)
{
    install(Module().needsUpdate());

    EXPECT_EQ(decideOnPackage(), -1);

    expectSteps({tried, LogFrom("mountEMPImage", ERROR,
                                "Error: file no exist (" + std::string(kPackage) + ")")});
}

TEST_F(UpdateDecision, NothingIsMountedForAnyOtherSource)
{
    writeFile(kPackage, "a package");
    offer(kStickDirectory);
    offer(kSystemDirectory);
    offer(kSharedDirectory);
    install(Module().needsUpdate());
    for (const CallerTypes caller :
         {CALLER_STICK, CALLER_SYSTEM, CALLER_SHARED, CALLER_SYSTEM_2, CALLER_SYSTEM_3}) {
        EXPECT_EQ(OfferedFirmware::decide(caller, argument), 1) << caller;
    }

    expectTexts(callTexts(), {});
}

TEST_F(UpdateDecision, WithoutAStickTheImageHasNoPath)
{
    install(Module().needsUpdate());

    EXPECT_EQ(OfferedFirmware::decide(CALLER_STICK, argument), -1);

    expectSteps({tried, contextSet(0),
                 LogFrom("getBinaryPath", ERROR, "Error: Usb mount path Not found."),
                 said("Error: Firmware binary file no exist ()")});
}

TEST_F(UpdateDecision, EveryCallerHasItsSource)
{
    // Version, image and checksum of one source never fit those of another.
    offer(kStickDirectory, Firmware().version("stick").image(noise(100, 1)));
    offerPackage(Firmware().version("package").image(noise(100, 2)));
    offer(kSystemDirectory, Firmware().version("system").image(noise(100, 3)));
    offer(kSharedDirectory, Firmware().version("shared").image(noise(100, 4)));
    install(Module().needsUpdate());
    const std::vector<std::pair<int, std::string>> sources = {
        {0, "stick"},   {1, "package"},  {2, "package"},      {3, "package"},
        {4, "system"},  {5, "shared"},   {6, "system"},       {7, "system"},
        {8, "package"}, {-1, "package"}, {INT_MAX, "package"}};
    for (const auto& [caller, source] : sources) {
        clear();

        EXPECT_EQ(OfferedFirmware::decide(static_cast<CallerTypes>(caller), argument), 1) << caller;

        SCOPED_TRACE(caller);
        expectTexts(pluginTexts(),
                    {"tuner.setContext(\"tuner\", " + std::to_string(caller) + ", \"argument\")",
                     "tuner.checkVersion(\"" + source + "\", need 0)"});
    }
    char usb[] = "USB";
    clear();
    EXPECT_EQ(OfferedFirmware::decide(CALLER_ARGUMENT, usb), 1);
    expectTexts(pluginTexts(), {"tuner.setContext(\"tuner\", 1, \"USB\")",
                                "tuner.checkVersion(\"stick\", need 0)"});
}

TEST_F(UpdateDecision, OnlyCallerOneNeedsAnArgument)
{
    offer(kStickDirectory);
    offerPackage();
    offer(kSystemDirectory);
    offer(kSharedDirectory);
    install(Module().needsUpdate());
    for (const int caller : {0, 2, 3, 4, 5, 6, 7, 8}) {
        clear();

        EXPECT_EQ(OfferedFirmware::decide(static_cast<CallerTypes>(caller), nullptr), 1) << caller;

        expectStep(Plugin("tuner.setContext(\"tuner\", " + std::to_string(caller) + ", null)"));
    }
    clear();
    EXPECT_THROW(module.isNeedUpdate(CALLER_ARGUMENT, nullptr), std::logic_error);
    expectSteps({tried});
}

TEST_F(UpdateDecision, ARecordWithoutItsEntriesRaises)
{
    offer(kSystemDirectory);

    EXPECT_THROW(module.isNeedUpdate(CALLER_SYSTEM, argument), std::bad_function_call);

    expectSteps({said(" Firmware isNeedUpdateModules Try(tuner)")});
}

}  // namespace
}  // namespace quillon::test
