// The run over every module that the last check has marked.

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "fw-update-symbol-manager-runs.h"

using namespace quillon::fakes;
using namespace quillon::test;

namespace {

constexpr const char* kTry = "Try doUpdateFirmwareAll";
constexpr const char* kNothingToDo = "There is no update item";
constexpr const char* kLocked = "device_power_lock_state done";
constexpr const char* kUnlocking = "device_power_unlock_state";
constexpr const char* kUnlocked = "device_power_unlock_state done";
constexpr const char* kEvent = "LwipcEventDone(\"/tmp/.ignore_resume\") = 0";

std::string checkedLine(const std::string& name)
{
    return name + " Firmware Expected Time Check Done";
}

std::string totalLine(const std::string& milliseconds)
{
    return "about total update time is " + milliseconds +
           " ms, Lock the power during about that time.";
}

std::string lockCall(const std::string& milliseconds)
{
    return "device_power_lock_state(2, " + milliseconds + ") = 0";
}

class RunAll : public RunTest
{
protected:
    /// Three modules, in the order of the registry.
    std::vector<std::string> threeModules(std::uint32_t seconds = 30)
    {
        for (const char* name : {"mike", "alpha", "zulu"}) {
            addModule(name, updatedOnTime(), seconds);
        }
        start();
        return listedModules();
    }

    void mark(const std::string& name)
    {
        module(name).isNeedUpdate(CALLER_SERVICE, noText);
        clear();
    }

    void markAll()
    {
        for (const std::string& name : listedModules()) {
            mark(name);
        }
    }

    int run(CallerTypes caller = CALLER_SERVICE) { return manager->doUpdateFirmwareAll(caller); }
};

}  // namespace

TEST_F(RunAll, OverNoModulesSignalsAndSaysSo)
{
    start();

    EXPECT_EQ(run(), 0);

    expectSteps({LogFrom("doUpdateFirmwareAll", ERROR, kTry), Call(kEvent),
                 LogFrom("doUpdateFirmwareAll", ERROR, kNothingToDo)});
}

TEST_F(RunAll, WithNothingMarkedLooksAtEachModuleAndLeavesTheListAlone)
{
    const std::vector<std::string> names = threeModules();
    writeFile(kUpdateList, "a list");

    EXPECT_EQ(run(), 0);

    expectSteps({Log(ERROR, kTry), Call(kEvent),
                 LogFrom("doUpdateFirmwareAll", ERROR, checkedLine(names[0])),
                 Log(ERROR, checkedLine(names[1])), Log(ERROR, checkedLine(names[2])),
                 Log(ERROR, kNothingToDo)});
    EXPECT_EQ(readFile(kUpdateList), bytesOf("a list"));
}

TEST_F(RunAll, LocksUpdatesTellsUnlocksAndRemovesTheListInThisOrder)
{
    addModule("alpha");
    start();
    mark("alpha");
    writeFile(kUpdateList, "a list");
    recordCalls({"sem_wait", "sem_post", "remove"});

    EXPECT_EQ(run(), 0);

    expectSteps(
        ownTimeline(),
        {Log(ERROR, kTry), Call(kEvent), Log(ERROR, checkedLine("alpha")),
         LogFrom("doUpdateFirmwareAll", ERROR, totalLine("30000")), Call(lockCall("35000")),
         LogFrom("doUpdateFirmwareAll", ERROR, kLocked), Log(ERROR, "alpha update time 30 ms"),
         Call("sem_wait(\"/SEM_UPDATE_CONTROL\") = 0"),
         Call("sem_post(\"/SEM_UPDATE_CONTROL\") = 0"), Plugin("alpha.allUpdateDone()"),
         LogFrom("doUpdateFirmwareAll", ERROR, kUnlocking),
         Call("device_power_unlock_state(2) = 0"), LogFrom("doUpdateFirmwareAll", ERROR, kUnlocked),
         Call("remove(\"/tmp/fwupdate-off-list.txt\") = 0")});
    EXPECT_FALSE(std::filesystem::exists(kUpdateList));
    expectTexts(askedFor("doUpdate"), {"alpha"});
}

TEST_F(RunAll, ToleratesAMissingList)
{
    addModule("alpha");
    start();
    mark("alpha");

    EXPECT_EQ(run(), 0);

    EXPECT_EQ(ownTexts(Kind::Log).back(), kUnlocked);
}

TEST_F(RunAll, UpdatesTheMarkedModulesAndTellsAllOfThem)
{
    const std::vector<std::string> names = threeModules();
    mark(names[0]);
    mark(names[2]);

    EXPECT_EQ(run(), 0);

    expectTexts(askedFor("doUpdate"), {names[0], names[2]});
    EXPECT_EQ(askedFor("allUpdateDone"), names);
    expectTexts(ownTexts(Kind::Log),
                {kTry, checkedLine(names[0]), checkedLine(names[1]), checkedLine(names[2]),
                 totalLine("60000"), kLocked, names[0] + " update time 30 ms",
                 names[2] + " update time 30 ms", kUnlocking, kUnlocked});
    expectStep(Call(lockCall("70000")));
}

TEST_F(RunAll, LocksForTheSumAndFiveSecondsAModule)
{
    addModule("alpha", updatedOnTime(), 3);
    addModule("bravo", updatedOnTime(), 0);
    addModule("charlie", Module().upToDate(), 500);
    start();
    markAll();

    EXPECT_EQ(run(), 0);

    expectStep(Log(totalLine("3000")));
    expectStep(Call(lockCall("13000")));
}

TEST_F(RunAll, GivesEachUpdateItsOwnTime)
{
    addModule("alpha", updatedOnTime(), 31);
    addModule("bravo", updatedOnTime(), 45);
    start();
    markAll();

    EXPECT_EQ(run(), 0);

    expectStep(Log("alpha update time 31 ms"));
    expectStep(Log("bravo update time 45 ms"));
}

TEST_F(RunAll, ClampsTheLockAloneWhenOnlyTheMarginIsTooMuch)
{
    addModule("alpha", updatedOnTime(), 2147483);
    start();
    markAll();

    EXPECT_EQ(run(), 0);

    expectStep(Log(totalLine("2147483000")));
    expectStep(Call(lockCall("2147483647")));
}

TEST_F(RunAll, ClampsASumThatIsTooMuch)
{
    addModule("alpha", updatedOnTime(), 2147484);
    start();
    markAll();

    EXPECT_EQ(run(), 0);

    expectStep(Log(totalLine("2147483647")));
    expectStep(Call(lockCall("2147483647")));
}

TEST_F(RunAll, TakesTheGreatestExpectedTimesForWhatTheyAre)
{
    addModule("alpha", updatedOnTime(), 2147483648U);
    addModule("bravo", updatedOnTime(), 4294967290U);
    start();
    markAll();

    EXPECT_EQ(run(), 0);

    expectStep(Log(totalLine("2147483647")));
    expectStep(Call(lockCall("2147483647")));
    expectNoStep(Log(like("Error*")));
}

TEST_F(RunAll, SpeaksForTheServiceWhoeverAsked)
{
    addModule("alpha");
    start();
    mark("alpha");

    EXPECT_EQ(run(CALLER_SYSTEM), 0);

    expectTexts(askedFor("setContext"), {"alpha"});
    expectStep(Plugin("alpha.setContext(\"alpha\", 2, \"\")"));
    expectStep(Plugin(like("alpha.doUpdate(\"/opt/usr/apps/*")));
}

TEST_F(RunAll, GoesByTheMarksOfTheLastCheck)
{
    const std::vector<std::string> names = threeModules();
    device.changeModule(names[0], updatedOnTime().needs(0));
    device.changeModule(names[1], updatedOnTime().needs(2));
    device.changeModule(names[2], updatedOnTime().needs(0));
    markAll();
    device.changeModule(names[0], updatedOnTime());

    EXPECT_EQ(run(), 0);

    expectTexts(askedFor("doUpdate"), {names[1]});
    expectNoStep(Log(like("*isNeedUpdateModules*")));
}

TEST_F(RunAll, PassesOverAFailedUpdate)
{
    const std::vector<std::string> names = threeModules();
    markAll();
    device.changeModule(names[0], updatedOnTime().returning("doUpdate", -1));
    device.changeModule(names[1], updatedOnTime().throwing("doUpdate"));

    EXPECT_EQ(run(), 0);

    EXPECT_EQ(askedFor("doUpdate"), names);
    expectNoStep(ownTimeline(), Log(like("Error*")));
}

TEST_F(RunAll, PassesOverATimeOut)
{
    const std::vector<std::string> names = threeModules();
    offer(names[1], names[1] + "emp", 0);
    markAll();
    Gate gate;
    platform().psMount.always([&gate, &names](const char* request) {
        if (std::string(request).find("/" + names[1] + "emp.img") != std::string::npos) {
            gate.pass();
        }
        return std::pair<int, int>{0, 0};
    });

    EXPECT_EQ(run(), 0);

    expectTexts(askedFor("doUpdate"), {names[0], names[2]});
    EXPECT_EQ(askedFor("allUpdateDone"), names);
    expectTexts(ownTexts(Kind::Log),
                {kTry, checkedLine(names[0]), checkedLine(names[1]), checkedLine(names[2]),
                 totalLine("60000"), kLocked, names[0] + " update time 30 ms",
                 names[1] + " update time 0 ms", names[1] + " update timeout",
                 "Error : " + names[1] + " update timeout", names[2] + " update time 30 ms",
                 kUnlocking, kUnlocked});
    expectStep(ownTimeline(),
               LogFrom("doUpdateFirmwareAll", ERROR, "Error : " + names[1] + " update timeout"));
    // Nobody waits for it any more.
    device.changeModule(names[1], Module().needsUpdate());
    gate.open();
    awaitEndOf(names[1]);
    expectStep(Log(succeeded(names[1])));
}

TEST_F(RunAll, PassesOverAWorkerThatCannotBeStarted)
{
    const std::vector<std::string> names = threeModules();
    markAll();
    failCall("pthread_create", EAGAIN);

    EXPECT_EQ(run(), 0);

    expectStep(Log("Error : Resource temporarily unavailable"));
    expectTexts(askedFor("doUpdate"), {names[1], names[2]});
    EXPECT_EQ(ownTexts(Kind::Log).back(), kUnlocked);
}

TEST_F(RunAll, PassesOverAMissingSemaphore)
{
    const std::vector<std::string> names = threeModules();
    markAll();
    failCall("sem_open", EACCES);

    EXPECT_EQ(run(), 0);

    expectTexts(askedFor("doUpdate"), {names[1], names[2]});
    EXPECT_EQ(askedFor("allUpdateDone"), names);
}

TEST_F(RunAll, LetsErrorsOfOtherKindsPass)
{
    if (!canFailAllocations()) {
        GTEST_SKIP() << "the sanitizer's allocator cannot be made to fail";
    }
    const std::string firmware(100, 'a');
    const std::string package = firmware + "emp";
    device.addModule("alpha", updatedOnTime().withEmpid(package));
    offer(firmware, package, 30);
    start();
    mark("alpha");
    // The guard's own copy of the firmware's name.
    platform().powerLock.always([](int /*type*/, int /*milliseconds*/) {
        failAllocation(101);
        return 0;
    });

    EXPECT_THROW(run(), std::bad_alloc);

    EXPECT_EQ(logTexts().back(), kLocked);
    expectTexts(pluginTexts(), {});
}

TEST_F(RunAll, DoesNotLookAtWhatThePlatformAnswers)
{
    addModule("alpha", updatedOnTime().returning("allUpdateDone", -1));
    start();
    mark("alpha");
    platform().lwipcEventDone.always(-1);
    platform().powerLock.always(-1);
    platform().powerUnlock.always(-1);

    EXPECT_EQ(run(), 0);

    expectTexts(askedFor("doUpdate"), {"alpha"});
    expectTexts(ownTexts(Kind::Log), {kTry, checkedLine("alpha"), totalLine("30000"), kLocked,
                                      "alpha update time 30 ms", kUnlocking, kUnlocked});
}

TEST_F(RunAll, PassesOverModulesThatAreNotLoaded)
{
    addModule("alpha");
    device.addModuleFile("broken", bytesOf("no library"));
    start();
    mark("alpha");

    EXPECT_EQ(run(), 0);

    expectStep(Log(checkedLine("broken")));
    expectTexts(askedFor("doUpdate"), {"alpha"});
}

namespace {

/// What a plug-in was told, as the pointers that it got.
struct Told
{
    std::vector<const char*> names;
    std::vector<const char*> arguments;
};

}  // namespace

TEST_F(RunAll, WhatAPluginIsToldStaysValidToTheEndOfTheRun)
{
    Told told;
    std::string nameAtTheEnd;
    addModule("alpha", updatedOnTime()
                           .onSetContext([&told](const char* name, char* argument) {
                               told.names.push_back(name);
                               told.arguments.push_back(argument);
                           })
                           .onAllUpdateDone([&] { nameAtTheEnd = told.names.back(); }));
    start();
    mark("alpha");
    ASSERT_EQ(run(), 0);

    EXPECT_EQ(nameAtTheEnd, "alpha");
    ASSERT_GE(told.names.size(), 3U) << "loading, checking, updating";
    EXPECT_EQ(told.names, std::vector(told.names.size(), told.names.front()));
    // The check's text in between is the test's own.
    EXPECT_EQ(told.arguments.back(), told.arguments.front());
}
