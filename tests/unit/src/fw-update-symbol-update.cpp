// Installing the firmware that a caller's source offers.

#include <pthread.h>

#include <cerrno>
#include <climits>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "offered-firmware.h"

namespace quillon::test {
namespace {

using namespace fakes;

constexpr std::chrono::seconds kLong{10};

class UpdateFirmware : public OfferedFirmware
{
protected:
    /// From the read-only system area, where nothing has to be mounted.
    int update() { return OfferedFirmware::update(CALLER_SYSTEM, argument); }

    /// From the module's package.
    int updateFromPackage() { return OfferedFirmware::update(CALLER_SERVICE, argument); }

    static Step said(const std::string& text) { return LogFrom("updateFirmware", ERROR, text); }
    static Step updated(const std::string& directory, std::uint32_t crc = Firmware().crc())
    {
        return plugin("doUpdate(\"" + directory + "/tunerA1.bin\", " + std::to_string(crc) + ")");
    }

    const std::string imagePath = std::string(kSystemDirectory) + "/tunerA1.bin";
    const std::string informationPath = std::string(kSystemDirectory) + "/info.json";
    const Step tried = said("tunerA1 Firmware Update Try");
    const Step checked = plugin("checkVersion(\"2.0\", need -1)");
    const Step started = said("========== [ tunerA1 update start ] ==========");
    const Step succeeded = said("========== [ tunerA1 update succeeded ] ==========");
    const Step notNeeded = said("Error: tunerA1 Firmware not need update");
};

TEST_F(UpdateFirmware, ChecksNamesTheThreadAsksAndInstallsInThisOrder)
{
    offer(kSystemDirectory);
    install(Module().needsUpdate());
    recordCalls({"stat", "fread", "prctl", "remove"});

    EXPECT_EQ(update(), 0);

    const Step imageLookedAt = Call("stat(\"" + imagePath + "\") = 0");
    const Step informationLookedAt = Call("stat(\"" + informationPath + "\") = 0");
    expectSteps({tried, informationLookedAt, informationLookedAt, imageLookedAt,
                 Call("prctl(PR_SET_NAME, \"tunerA1\") = 0"), contextSet(4), checked, imageLookedAt,
                 Call("fread(1, 32768) = 9"), Call("fread(1, 32768) = 0"), imageLookedAt, started,
                 updated(kSystemDirectory), succeeded});
}

TEST_F(UpdateFirmware, AModuleThatIsNotLoadedIsRefusedInSilence)
{
    offer(kSystemDirectory);
    ASSERT_EQ(install(Module().needsUpdate().withEmpid("tunerA1")), -1) << "it names no package";
    recordCalls({"stat", "prctl"});

    EXPECT_EQ(update(), -1);
    EXPECT_EQ(updateFromPackage(), -1);
    EXPECT_EQ(FWUpdateSymbol("never").updateFirmware(CALLER_ARGUMENT, nullptr), -1);

    expectSteps({});
}

TEST_F(UpdateFirmware, AMissingInformationFileIsNamed)
{
    offer(kSystemDirectory);
    removeFile(informationPath);
    install(Module().needsUpdate());

    EXPECT_EQ(update(), -1);

    expectSteps({tried, said("Error: Firmware json file no exist (" + informationPath + ")")});
}

TEST_F(UpdateFirmware, AMissingImageIsNamed)
{
    offer(kSystemDirectory);
    removeFile(imagePath);
    install(Module().needsUpdate());
    recordCalls({"prctl"});

    EXPECT_EQ(update(), -1);

    expectSteps({tried, said("Error: Firmware binary file no exist (" + imagePath + ")")});
}

TEST_F(UpdateFirmware, OfTwoMissingFilesTheInformationFileIsNamed)
{
    install(Module().needsUpdate());

    EXPECT_EQ(update(), -1);

    expectSteps({tried, said("Error: Firmware json file no exist (" + informationPath + ")")});
}

TEST_F(UpdateFirmware, ABrokenInformationFileIsAFailureEvenWithoutAnImage)
{
    offer(kSystemDirectory, Firmware().information("not JSON"));
    removeFile(imagePath);
    install(Module().needsUpdate());

    EXPECT_EQ(update(), -1);

    expectSteps({tried,
                 LogFrom("loadInformation", ERROR,
                         "Error: json loadInformation fail.(" + informationPath + ")\n"),
                 said("Error: json information load fail")});
}

TEST_F(UpdateFirmware, SaysNothingWhenItsContextIsRefused)
{
    offer(kSystemDirectory);
    install(Module().needsUpdate().returning("setContext", 1));

    EXPECT_EQ(update(), -1);

    expectSteps({tried, contextSet(4)});
}

TEST_F(UpdateFirmware, FailsWhenThePluginCannotCheckTheVersion)
{
    offer(kSystemDirectory);
    install(Module().needsUpdate().returning("checkVersion", 1));

    EXPECT_EQ(update(), -1);

    expectSteps({tried, contextSet(4), checked, said("Error: tunerA1 Firmware CheckVersion Fail")});
}

TEST_F(UpdateFirmware, SucceedsWithoutAnyUpdateWhenNoneIsNeeded)
{
    offer(kSystemDirectory);
    install(Module());
    for (const int need : {0, -1, INT_MIN}) {
        change(Module().needs(need));
        clear();

        EXPECT_EQ(update(), 0);

        expectSteps({tried, contextSet(4), checked, notNeeded});
    }
}

TEST_F(UpdateFirmware, APluginThatGivesNoAnswerNeedsNoUpdate)
{
    offer(kSystemDirectory);
    install(Module().leavesNeedAlone());

    EXPECT_EQ(update(), 0);

    expectSteps({tried, contextSet(4), checked, notNeeded});
}

TEST_F(UpdateFirmware, EveryNeedAboveZeroInstalls)
{
    offer(kSystemDirectory);
    install(Module().needs(2));

    EXPECT_EQ(update(), 0);

    expectLastSteps({started, updated(kSystemDirectory), succeeded});
}

TEST_F(UpdateFirmware, ADamagedImageIsRefusedAfterThePluginWasAsked)
{
    offer(kSystemDirectory, Firmware().statedCrc(Firmware().crc() ^ 0x80000000U));
    install(Module().needsUpdate());

    EXPECT_EQ(update(), -1);

    expectSteps({tried, contextSet(4), checked, said("Error: tunerA1 Firmware crc32 different")});
}

TEST_F(UpdateFirmware, ADamagedImageThatIsNotNeededIsNotEvenRead)
{
    offer(kSystemDirectory, Firmware().statedCrc(1));
    install(Module().upToDate());
    recordCalls({"fread"});

    EXPECT_EQ(update(), 0);

    expectSteps({tried, contextSet(4), checked, notNeeded});
}

TEST_F(UpdateFirmware, HandsThePluginsOwnCodeBackAndTellsErrno)
{
    offer(kSystemDirectory);
    install(Module());
    for (const int code : {5, -1, INT_MIN}) {
        change(Module().needsUpdate().returning("doUpdate", code, ENOSPC));
        clear();

        EXPECT_EQ(update(), code);

        expectSteps({tried, contextSet(4), checked, started, updated(kSystemDirectory),
                     said("Error: tunerA1 Firmware doUpdate Fail " + std::to_string(code) +
                          " (28:No space left on device)")});
    }
}

TEST_F(UpdateFirmware, TheChecksumIsHandedOnWithoutASign)
{
    const Firmware firmware = Firmware().image({0x80});
    ASSERT_GT(firmware.crc(), 0x7FFFFFFFU);
    offer(kSystemDirectory, firmware);
    install(Module().needsUpdate());

    EXPECT_EQ(update(), 0);

    expectStep(updated(kSystemDirectory, firmware.crc()));
}

TEST_F(UpdateFirmware, TheImageIsClosedBeforeItIsInstalled)
{
    const int before = openDescriptors();
    int meanwhile = 0;
    offer(kSystemDirectory);
    install(Module().needsUpdate().onUpdate(
        [&meanwhile](const char*, unsigned long) { meanwhile = openDescriptors(); }));

    EXPECT_EQ(update(), 0);

    EXPECT_EQ(meanwhile, before);
}

TEST_F(UpdateFirmware, LeavesTheDecisionAlone)
{
    offer(kSystemDirectory);
    install(Module().needsUpdate());
    ASSERT_EQ(decide(CALLER_SYSTEM, argument), 1);
    offer(kSystemDirectory, Firmware().takesSeconds("8"));

    EXPECT_EQ(update(), 0);
    change(Module().upToDate());
    EXPECT_EQ(update(), 0);

    EXPECT_TRUE(module.getNeedUpdate());
    EXPECT_EQ(module.getExpectedUpdateTime(), 90);
}

TEST_F(UpdateFirmware, APackageIsMountedInstalledDeletedAndThenUnmounted)
{
    offerPackage();
    install(Module().needsUpdate());
    recordCalls({"remove"});

    EXPECT_EQ(updateFromPackage(), 0);

    expectSteps(Steps{tried} + mountedAnew +
                Steps{contextSet(2), checked, started, updated(kMountPoint), succeeded,
                      Call("remove(\"" + std::string(kPackage) + "\") = 0")} +
                unmounted);
    EXPECT_FALSE(isThere(kPackage));
}

TEST_F(UpdateFirmware, SucceedsEvenWhenThePackageCanBeNeitherDeletedNorUnmounted)
{
    offerPackage();
    install(Module().needsUpdate());
    platform().psUmount.then({{0, 0}, {-1, 0}});
    failCall("remove", EROFS);
    recordCalls({"remove"});

    EXPECT_EQ(updateFromPackage(), 0);

    expectLastSteps(
        {succeeded, Call("remove(\"" + std::string(kPackage) + "\") = -1"), umountCall(-1),
         saidNotUnmounted,
         LogFrom("unmountEMPImage", ERROR, "Error: Firmware EMP UMount Fail.(tunerempA1)")});
    EXPECT_TRUE(isThere(kPackage));
}

TEST_F(UpdateFirmware, APackageThatIsNotNeededIsUnmountedAndKept)
{
    offerPackage();
    install(Module().upToDate());

    EXPECT_EQ(updateFromPackage(), 0);

    expectSteps(Steps{tried} + mountedAnew + Steps{contextSet(2), checked, notNeeded} + unmounted);
    EXPECT_TRUE(isThere(kPackage));
}

TEST_F(UpdateFirmware, APackageThatIsNotNeededIsNoFailureEvenWhenItCannotBeUnmounted)
{
    offerPackage();
    install(Module().upToDate());
    platform().psUmount.then({{0, 0}, {-1, 0}});

    EXPECT_EQ(updateFromPackage(), 0);
}

TEST_F(UpdateFirmware, ThePluginIsNotAskedWhenThePackageCannotBeMounted)
{
    install(Module().needsUpdate());

    EXPECT_EQ(updateFromPackage(), -1);

    expectSteps({tried, LogFrom("mountEMPImage", ERROR,
                                "Error: file no exist (" + std::string(kPackage) + ")")});
}

TEST_F(UpdateFirmware, EveryFailureLeavesThePackageMountedAndInPlace)
{
    const std::string image = std::string(kMountPoint) + "/tunerA1.bin";
    const std::string information = std::string(kMountPoint) + "/info.json";
    const std::vector<std::function<void()>> damages = {
        [&] { removeFile(image); },
        [&] { removeFile(information); },
        [] { offerPackage(Firmware().information("not JSON")); },
        [] { offerPackage(Firmware().statedCrc(1)); },
        [this] { change(Module().needsUpdate().returning("setContext", 1)); },
        [this] { change(Module().needsUpdate().returning("checkVersion", 1)); },
        [this] { change(Module().needsUpdate().returning("doUpdate", -1)); }};
    install(Module());
    for (std::size_t i = 0; i < damages.size(); ++i) {
        change(Module().needsUpdate());
        offerPackage();
        damages[i]();
        clear();

        EXPECT_EQ(updateFromPackage(), -1) << i;

        SCOPED_TRACE(i);
        expectText(callTexts().back(), like("PS_Mount(*"));
        EXPECT_TRUE(isThere(kPackage)) << i;
    }
}

TEST_F(UpdateFirmware, NothingIsMountedOrDeletedForAnyOtherSource)
{
    writeFile(kPackage, "a package");
    offer(kStickDirectory);
    offer(kSystemDirectory);
    offer(kSharedDirectory);
    install(Module());
    recordCalls({"remove"});
    for (const CallerTypes caller :
         {CALLER_STICK, CALLER_SYSTEM, CALLER_SHARED, CALLER_SYSTEM_2, CALLER_SYSTEM_3}) {
        change(Module().needsUpdate());
        EXPECT_EQ(OfferedFirmware::update(caller, argument), 0) << caller;
        change(Module().upToDate());
        EXPECT_EQ(OfferedFirmware::update(caller, argument), 0) << caller;
    }

    expectTexts(callTexts(), {});
    EXPECT_TRUE(isThere(kPackage));
    EXPECT_TRUE(isThere(imagePath)) << "only packages are deleted";
}

TEST_F(UpdateFirmware, EveryCallerHasItsSource)
{
    const std::vector<std::pair<int, std::string>> sources = {
        {0, kStickDirectory},  {1, kMountPoint},      {2, kMountPoint},      {3, kMountPoint},
        {4, kSystemDirectory}, {5, kSharedDirectory}, {6, kSystemDirectory}, {7, kSystemDirectory},
        {8, kMountPoint},      {-1, kMountPoint},     {INT_MAX, kMountPoint}};
    install(Module().needsUpdate());
    for (const auto& [caller, directory] : sources) {
        // Version, image and checksum of one source never fit those of another.
        offer(kStickDirectory, Firmware().version(kStickDirectory).image(noise(100, 1)));
        offerPackage(Firmware().version(kMountPoint).image(noise(100, 2)));
        offer(kSystemDirectory, Firmware().version(kSystemDirectory).image(noise(100, 3)));
        offer(kSharedDirectory, Firmware().version(kSharedDirectory).image(noise(100, 4)));
        const std::uint32_t crc = static_cast<std::uint32_t>(
            FWUpdateSymbol("any").getBinaryCRC32(directory + "/tunerA1.bin"));
        clear();

        EXPECT_EQ(OfferedFirmware::update(static_cast<CallerTypes>(caller), argument), 0) << caller;

        SCOPED_TRACE(caller);
        expectTexts(
            pluginTexts(),
            {"tuner.setContext(\"tuner\", " + std::to_string(caller) + ", \"argument\")",
             "tuner.checkVersion(\"" + directory + "\", need -1)",
             "tuner.doUpdate(\"" + directory + "/tunerA1.bin\", " + std::to_string(crc) + ")"});
    }
}

TEST_F(UpdateFirmware, CallerOneMeansAStickWhenItsArgumentSaysSo)
{
    offer(kStickDirectory);
    install(Module().needsUpdate());
    char usb[] = "USB";

    EXPECT_EQ(OfferedFirmware::update(CALLER_ARGUMENT, usb), 0);

    expectSteps({tried, plugin("setContext(\"tuner\", 1, \"USB\")"), checked, started,
                 updated(kStickDirectory), succeeded});
}

TEST_F(UpdateFirmware, OnlyCallerOneNeedsAnArgument)
{
    install(Module().needsUpdate());
    for (const int caller : {0, 2, 3, 4, 5, 6, 7, 8}) {
        offer(kStickDirectory);
        offerPackage();
        offer(kSystemDirectory);
        offer(kSharedDirectory);
        clear();

        EXPECT_EQ(OfferedFirmware::update(static_cast<CallerTypes>(caller), nullptr), 0) << caller;

        expectStep(Plugin("tuner.setContext(\"tuner\", " + std::to_string(caller) + ", null)"));
    }
    clear();
    EXPECT_THROW(module.updateFirmware(CALLER_ARGUMENT, nullptr), std::logic_error);
    expectSteps({tried});
}

TEST_F(UpdateFirmware, WithoutAStickTheInformationFileHasNoPath)
{
    install(Module().needsUpdate());

    EXPECT_EQ(OfferedFirmware::update(CALLER_STICK, argument), -1);

    expectSteps({tried, LogFrom("getInformationPath", ERROR, "Error: Usb mount path Not found."),
                 said("Error: Firmware json file no exist ()")});
}

TEST_F(UpdateFirmware, TheCallingThreadAloneGetsTheFirst15CharactersOfTheName)
{
    const std::string name = "aFirmwareWithALongName";
    const std::string directory = "/lib/firmware/ext/" + name;
    writeFile(directory + "/" + name + ".bin", Firmware().imageBytes());
    writeFile(directory + "/info.json", Firmware().informationText());
    ASSERT_EQ(install(Module().needsUpdate().withEmpid("emp" + name)), 0);
    recordCalls({"prctl"});
    char own[16] = {};
    ASSERT_EQ(pthread_getname_np(pthread_self(), own, sizeof(own)), 0);
    char named[16] = {};
    std::thread([&] {
        EXPECT_EQ(module.updateFirmware(CALLER_SYSTEM, argument), 0);
        pthread_getname_np(pthread_self(), named, sizeof(named));
    }).join();

    EXPECT_STREQ(named, "aFirmwareWithAL");
    expectTexts(callTexts(), {"prctl(PR_SET_NAME, \"" + name + "\") = 0"});
    pthread_getname_np(pthread_self(), named, sizeof(named));
    EXPECT_STREQ(named, own);
}

TEST_F(UpdateFirmware, AnExceptionOutOfThePluginLetsTheNextUpdateRun)
{
    offer(kSystemDirectory);
    install(Module());
    const std::vector<std::string> entries = {"setContext", "checkVersion", "doUpdate"};
    for (const std::string& entry : entries) {
        change(Module().needsUpdate().throwing(entry));

        EXPECT_THROW(module.updateFirmware(CALLER_SYSTEM, argument), std::runtime_error) << entry;
    }
    change(Module().needsUpdate());

    EXPECT_EQ(update(), 0);
}

/// Two modules: "tuner", and "radio" with the firmware of the same name.
class TwoModules : public UpdateFirmware
{
protected:
    TwoModules()
    {
        offer(kSystemDirectory);
        writeFile("/lib/firmware/ext/radio/radio.bin", Firmware().imageBytes());
        writeFile("/lib/firmware/ext/radio/info.json", Firmware().informationText());
        device.addModule("radio", Module().needsUpdate());
        EXPECT_EQ(radio.loadSymbol("radio"), 0);
    }

    FWUpdateSymbol radio{"radio"};
};

TEST_F(TwoModules, AreInstalledOneAfterTheOther)
{
    install(Module().needsUpdate().onUpdate([](const char*, unsigned long) {
        // The other one has come as far as it can: the name is given before the wait.
        EXPECT_TRUE(waitForText("prctl(PR_SET_NAME, \"radio\") = 0", kLong));
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        note("the first one returns");
    }));
    recordCalls({"prctl"});

    std::thread first([this] { EXPECT_EQ(module.updateFirmware(CALLER_SYSTEM, argument), 0); });
    EXPECT_TRUE(waitForText("tuner.doUpdate(\"" + imagePath + "\", 1783645788)", kLong));
    EXPECT_EQ(radio.updateFirmware(CALLER_SYSTEM, argument), 0);
    first.join();

    std::vector<std::string> order;
    for (const Entry& entry : timeline()) {
        if (entry.kind != Kind::Log) {
            order.push_back(entry.text);
        }
    }
    expectTexts(
        order,
        {"prctl(PR_SET_NAME, \"tunerA1\") = 0", "tuner.setContext(\"tuner\", 4, \"argument\")",
         "tuner.checkVersion(\"2.0\", need -1)",
         "tuner.doUpdate(\"" + imagePath + "\", 1783645788)", "prctl(PR_SET_NAME, \"radio\") = 0",
         "the first one returns", "radio.setContext(\"radio\", 4, \"argument\")",
         "radio.checkVersion(\"2.0\", need -1)",
         "radio.doUpdate(\"/lib/firmware/ext/radio/radio.bin\", 1783645788)"});
}

TEST_F(TwoModules, TheSecondWaitsFromTheFirstQuestionOn)
{
    install(Module().onCheckVersion([](const char*, int* need) {
        EXPECT_TRUE(waitForText("prctl(PR_SET_NAME, \"radio\") = 0", kLong));
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        expectTexts(pluginTexts(), {"tuner.setContext(\"tuner\", 4, \"argument\")",
                                    "tuner.checkVersion(\"2.0\", need -1)"});
        *need = 0;
        return 0;
    }));
    recordCalls({"prctl"});

    std::thread first([this] { EXPECT_EQ(module.updateFirmware(CALLER_SYSTEM, argument), 0); });
    EXPECT_TRUE(waitForText("tuner.checkVersion(\"2.0\", need -1)", kLong));
    EXPECT_EQ(radio.updateFirmware(CALLER_SYSTEM, argument), 0);
    first.join();
}

TEST_F(TwoModules, ADecisionDoesNotWaitForAnUpdate)
{
    bool overlapped = false;
    install(Module().needsUpdate().onUpdate([&overlapped](const char*, unsigned long) {
        overlapped = waitForText("the other one is decided", kLong);
    }));

    std::thread first([this] { EXPECT_EQ(module.updateFirmware(CALLER_SYSTEM, argument), 0); });
    EXPECT_TRUE(waitForText("========== [ tunerA1 update start ] ==========", kLong));
    EXPECT_EQ(radio.isNeedUpdate(CALLER_SYSTEM, argument), 1);
    note("the other one is decided");
    first.join();

    EXPECT_TRUE(overlapped);
}

}  // namespace
}  // namespace quillon::test
