// The run for the modules of one name, and an update without a guard.

#include <cerrno>
#include <functional>
#include <new>
#include <stdexcept>
#include <string>

#include "fw-update-symbol-manager-runs.h"

using namespace quillon::fakes;
using namespace quillon::test;

namespace {

constexpr const char* kNeedUpdateAsked = "alpha Firmware isNeedUpdateModules Try(alpha)";
constexpr const char* kProcessTried = " Firmware runProcess Try";

class RunOne : public RunTest
{
protected:
    void install(const Module& description = updatedOnTime())
    {
        addModule("alpha", description);
        start();
    }

    /// The registry with "alpha" in it twice.
    void installTwice(const Module& description)
    {
        install(description);
        ASSERT_TRUE(manager->onCreate(true));
        ASSERT_EQ(manager->modules().size(), 2U);
        clear();
    }

    /// A module that from the end of its update on is another.
    Module turningInto(const Module& next)
    {
        return Module().needsUpdate().onUpdate(
            [this, next](const char* /*path*/, unsigned long /*value*/) {
                device.changeModule("alpha", next);
                awaitTimedWait();
            });
    }

    int run(const std::string& name = "alpha", CallerTypes caller = CALLER_SYSTEM)
    {
        return manager->doUpdateFirmware(name, caller, noText);
    }
};

class RunOneProcess : public RunOne
{
protected:
    void install(const Module& description)
    {
        device.addModule("EXT-tool", description);
        start(false);
    }
};

class UpdateModule : public RunOne
{
};

}  // namespace

TEST_F(RunOne, ChecksAndUpdatesTheModule)
{
    install();
    addModule("bravo");
    char text[] = "some text";

    EXPECT_EQ(manager->doUpdateFirmware("alpha", CALLER_SYSTEM, text), 0);

    expectSteps(
        ownTimeline(),
        {Log(ERROR, kNeedUpdateAsked), Plugin("alpha.setContext(\"alpha\", 4, \"some text\")"),
         Plugin("alpha.checkVersion(\"2.0\", need 0)"), Log(ERROR, "alpha update time 30 ms")});
    expectTexts(
        pluginTexts(),
        {"alpha.setContext(\"alpha\", 4, \"some text\")", "alpha.checkVersion(\"2.0\", need 0)",
         "alpha.setContext(\"alpha\", 4, \"some text\")", "alpha.checkVersion(\"2.0\", need -1)",
         like("*alpha.doUpdate(\"/lib/firmware/ext/*")});
}

TEST_F(RunOne, KeepsANullTextNull)
{
    install();

    EXPECT_EQ(manager->doUpdateFirmware("alpha", CALLER_SYSTEM, nullptr), 0);

    EXPECT_EQ(countSteps(Plugin("alpha.setContext(\"alpha\", 4, null)")), 2U);
}

TEST_F(RunOne, GivesTheModuleTheTimeThatItsCheckFound)
{
    addModule("alpha", updatedOnTime(), 33);
    start();
    EXPECT_EQ(run(), 0);
    offer("alpha", "alphaemp", 44);
    EXPECT_EQ(run(), 0);

    expectStep(Log("alpha update time 33 ms"));
    expectStep(Log("alpha update time 44 ms"));
}

TEST_F(RunOne, LeavesPowerEventAndPlugInsAlone)
{
    install();

    EXPECT_EQ(run(), 0);

    expectTexts(callTexts(), {});
    expectTexts(askedFor("allUpdateDone"), {});
}

TEST_F(RunOne, ReturnsWhatTheUpdateReturns)
{
    install(updatedOnTime().returning("doUpdate", 5));

    EXPECT_EQ(run(), 5);
}

TEST_F(RunOne, OfANameThatNoModuleHasDoesNothing)
{
    install();

    for (const char* name : {"Alpha", "alph", "alphaa", "alpha.so", "alpha ", "alphaemp", ""}) {
        EXPECT_EQ(run(name), -1) << name;
    }

    expectSteps({});
}

TEST_F(RunOne, GoesByTheLibrarysName)
{
    device.addModule("alpha", updatedOnTime().withEmpid("tuneremp"));
    offer("tuner", "tuneremp", 30);
    start();

    EXPECT_EQ(run("tuner"), -1);
    EXPECT_EQ(run("alpha"), 0);
}

TEST_F(RunOne, LeavesAModuleAloneThatNeedsNoUpdate)
{
    for (const int need : {0, 2, -1}) {
        addModule("alpha" + std::to_string(need + 1), updatedOnTime().needs(need));
    }
    start();

    EXPECT_EQ(run("alpha1"), -1);
    EXPECT_EQ(run("alpha3"), -1);
    EXPECT_EQ(run("alpha0"), -1);

    EXPECT_EQ(askedFor("checkVersion").size(), 3U);
    expectTexts(askedFor("doUpdate"), {});
}

TEST_F(RunOne, UpdatesEveryModuleOfTheNameAndReturnsTheLastResult)
{
    installTwice(turningInto(updatedOnTime().returning("doUpdate", 9)).returning("doUpdate", 7));

    EXPECT_EQ(run(), 9);

    expectTexts(askedFor("doUpdate"), {"alpha", "alpha"});
}

TEST_F(RunOne, KeepsTheResultWhenALaterModuleNeedsNoUpdate)
{
    installTwice(turningInto(Module().upToDate()).returning("doUpdate", 7));

    EXPECT_EQ(run(), 7);

    expectTexts(askedFor("doUpdate"), {"alpha"});
}

TEST_F(RunOne, KeepsTheResultWhenALaterGuardGivesUp)
{
    installTwice(updatedOnTime().returning("doUpdate", 7));
    failCall("pthread_create", EAGAIN, 1, 1);

    EXPECT_EQ(run(), 7);

    expectLastSteps(
        {LogFrom("doUpdateFirmware", ERROR, "Error : Resource temporarily unavailable")});
    expectTexts(askedFor("doUpdate"), {"alpha"});
}

TEST_F(RunOne, GoesOnWhenAnEarlierGuardGivesUp)
{
    installTwice(updatedOnTime().returning("doUpdate", 7));
    failCall("pthread_create", EAGAIN);

    EXPECT_EQ(run(), 7);

    expectStep(Log("Error : Resource temporarily unavailable"));
    expectTexts(askedFor("doUpdate"), {"alpha"});
}

TEST_F(RunOne, TakesTheGuardsOwnRefusalForTheResult)
{
    installTwice(updatedOnTime().returning("doUpdate", 7));
    failCall("sem_open", EACCES, 1, 1);

    EXPECT_EQ(run(), -1);

    expectTexts(askedFor("doUpdate"), {"alpha"});
}

TEST_F(RunOne, LogsATimeOutAndFails)
{
    addModule("alpha", Module().needsUpdate(), 0);
    start();
    setDetachJoins(true);

    EXPECT_EQ(run(), -1);

    expectSteps(ownTimeline(),
                {Log(ERROR, kNeedUpdateAsked), Plugin("alpha.setContext(\"alpha\", 4, \"\")"),
                 Plugin("alpha.checkVersion(\"2.0\", need 0)"),
                 Log(ERROR, "alpha update time 0 ms"), Log(ERROR, "alpha update timeout"),
                 LogFrom("doUpdateFirmware", ERROR, "Error : alpha update timeout")});
}

TEST_F(RunOne, LetsErrorsOfTheCheckPass)
{
    install(Module().throwing("checkVersion"));
    device.addModuleFile("broken", bytesOf("no library"));
    ASSERT_TRUE(manager->onCreate(true));

    EXPECT_THROW(run("alpha"), std::runtime_error);
    EXPECT_THROW(run("broken"), std::bad_function_call);

    expectNoStep(Log(like("*Error :*")));
}

TEST_F(RunOne, LetsErrorsOfOtherKindsPass)
{
    if (!canFailAllocations()) {
        GTEST_SKIP() << "the sanitizer's allocator cannot be made to fail";
    }
    // The guard's own copy of the text.
    install(Module().onCheckVersion([](const char* /*version*/, int* need) {
        *need = 1;
        failAllocation(5001);
        return 0;
    }));
    std::string text(5000, 'x');

    EXPECT_THROW(manager->doUpdateFirmware("alpha", CALLER_SYSTEM, text.data()), std::bad_alloc);

    expectTexts(logTexts(), {kNeedUpdateAsked});
}

TEST_F(RunOneProcess, RunsOnTheCallersThreadWithoutAGuard)
{
    install(Module());
    recordCalls({"sem_open", "pthread_create"});
    char text[] = "some text";

    EXPECT_EQ(manager->doUpdateFirmware("EXT-tool", CALLER_SYSTEM, text), 0);

    expectSteps(ownTimeline(), {LogFrom("runProcess", ERROR, kProcessTried),
                                Plugin("EXT-tool.setContext(\"EXT-tool\", 4, \"some text\")"),
                                Plugin("EXT-tool.doUpdate(\"EXT-tool\", 0)")});
    EXPECT_EQ(timeline().size(), ownTimeline().size());
}

TEST_F(RunOneProcess, ReturnsItsFailure)
{
    install(Module().returning("doUpdate", 5));

    EXPECT_EQ(run("EXT-tool"), -1);
}

TEST_F(RunOneProcess, RunsEachOfTheName)
{
    install(Module());
    ASSERT_TRUE(manager->onCreate(false));
    clear();

    EXPECT_EQ(run("EXT-tool"), 0);

    expectTexts(askedFor("doUpdate"), {"EXT-tool", "EXT-tool"});
}

TEST_F(RunOneProcess, LetsItsErrorsPass)
{
    install(Module().throwing("doUpdate"));

    EXPECT_THROW(run("EXT-tool"), std::runtime_error);
}

TEST_F(UpdateModule, UpdatesOnTheCallersThreadAndIgnoresTheResult)
{
    install(Module().needsUpdate().returning("doUpdate", 5));
    recordCalls({"sem_open", "pthread_create"});
    char text[] = "some text";

    manager->update_module(module("alpha"), CALLER_SYSTEM, text);

    expectTexts(pluginTexts(), {"alpha.setContext(\"alpha\", 4, \"some text\")",
                                "alpha.checkVersion(\"2.0\", need -1)", like("*alpha.doUpdate(*")});
    expectTexts(callTexts(), {});
    EXPECT_EQ(timeline().size(), ownTimeline().size());
}
