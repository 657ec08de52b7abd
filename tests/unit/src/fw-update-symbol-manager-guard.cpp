// The guard of one module's update, when the update ends in time.

#include <pthread.h>

#include <cerrno>
#include <chrono>
#include <string>

#include "fw-update-symbol-manager-runs.h"

using namespace quillon::fakes;
using namespace quillon::test;

namespace {

constexpr unsigned int kSeconds = 30;

/// The call that the guard waits in; whatever its deadline is.
Step TimedWait(int result)
{
    return Call(like("pthread_cond_clockwait(CLOCK_MONOTONIC, *) = " + std::to_string(result)));
}

class Guard : public RunTest
{
protected:
    void install(const Module& description = updatedOnTime())
    {
        addModule("alpha", description);
        start();
    }

    int guard(unsigned int seconds = kSeconds, CallerTypes caller = CALLER_SYSTEM)
    {
        return manager->update_timeout_wrapper(module("alpha"), seconds, caller, noText);
    }

    /// For an update that ends at once: its worker has ended before the guard begins to wait, and
    /// the wait ends by itself.
    void endWorkerBeforeTheWaitAndWakeIt()
    {
        setDetachJoins(true);
        failCall("pthread_cond_clockwait", 0);
    }
};

/// With a clock that stands still.
class GuardDeadline : public Guard
{
protected:
    GuardDeadline()
    {
        install(Module().needsUpdate());
        setMonotonicTime({1000, 500000000});
        recordCalls({"pthread_cond_clockwait"});
        endWorkerBeforeTheWaitAndWakeIt();
    }
    ~GuardDeadline() override { useRealClock(); }
};

}  // namespace

TEST_F(Guard, TakesTheSemaphoreStartsAWorkerWaitsAndPosts)
{
    install();
    recordCalls({"sem_open", "sem_wait", "sem_post", "sem_close", "pthread_create",
                 "pthread_detach", "pthread_cond_clockwait"});

    EXPECT_EQ(guard(), 0);

    expectSteps(ownTimeline(), {LogFrom("update_timeout_wrapper", ERROR, "alpha update time 30 ms"),
                                Call("sem_open(\"/SEM_UPDATE_CONTROL\", O_CREAT, 0600, 1) = ok"),
                                Call("sem_wait(\"/SEM_UPDATE_CONTROL\") = 0"),
                                Call("pthread_create() = 0"), Call("pthread_detach() = 0"),
                                TimedWait(0), Call("sem_post(\"/SEM_UPDATE_CONTROL\") = 0")});
    EXPECT_EQ(semaphoreValue(), 1);
}

TEST_F(Guard, UpdatesOnAThreadOfItsOwn)
{
    install();

    EXPECT_EQ(guard(), 0);

    expectTexts(ownTexts(Kind::Plugin), {});
    expectTexts(pluginTexts(), {"alpha.setContext(\"alpha\", 4, \"\")",
                                "alpha.checkVersion(\"2.0\", need -1)", like("*alpha.doUpdate(*")});
}

TEST_F(Guard, UpdatesOnce)
{
    install();
    recordCalls({"pthread_create"});

    EXPECT_EQ(guard(), 0);

    expectTexts(callTexts(), {"pthread_create() = 0"});
    expectTexts(askedFor("doUpdate"), {"alpha"});
}

TEST_F(Guard, ReturnsWhatTheUpdateReturns)
{
    install(updatedOnTime().returning("doUpdate", 5));
    EXPECT_EQ(guard(), 5);

    device.changeModule("alpha", updatedOnTime().returning("doUpdate", -7));
    EXPECT_EQ(guard(), -7);
}

TEST_F(Guard, ReturnsTheRefusalOfAModuleThatIsNotLoaded)
{
    device.addModuleFile("broken", bytesOf("no library"));
    start();
    endWorkerBeforeTheWaitAndWakeIt();

    EXPECT_EQ(manager->update_timeout_wrapper(module("broken"), kSeconds, CALLER_SYSTEM, noText),
              -1);

    expectTexts(logTexts(), {" update time 30 ms"});
}

TEST_F(Guard, HandsCallerAndTextOn)
{
    install();
    char text[] = "some text";

    EXPECT_EQ(manager->update_timeout_wrapper(module("alpha"), kSeconds, CALLER_SYSTEM_3, text), 0);

    expectStep(Plugin("alpha.setContext(\"alpha\", 7, \"some text\")"));
}

TEST_F(Guard, KeepsANullTextNull)
{
    install();

    EXPECT_EQ(manager->update_timeout_wrapper(module("alpha"), kSeconds, CALLER_SYSTEM, nullptr),
              0);

    expectStep(Plugin("alpha.setContext(\"alpha\", 4, null)"));
}

TEST_F(Guard, NamesTheFirmwareInItsLine)
{
    device.addModule("alpha", updatedOnTime().withEmpid("tunerempA1"));
    offer("tunerA1", "tunerempA1", 30);
    start();

    EXPECT_EQ(guard(45), 0);

    expectTexts(ownTexts(Kind::Log), {"tunerA1 update time 45 ms"});
}

TEST_F(Guard, ToleratesAnUpdateThatThrows)
{
    install(updatedOnTime().throwing("doUpdate"));
    EXPECT_EQ(guard(), -1);

    device.changeModule("alpha", updatedOnTime().with("doUpdate", Effect::ThrowUnknown));
    EXPECT_EQ(guard(), -1);

    expectStep(LogFrom("work", ERROR, "Error: alpha update exception doUpdate"));
    expectStep(LogFrom("work", ERROR, "Error: alpha update exception of an unknown kind"));
    expectNoStep(Log(like("*timeout*")));
    EXPECT_EQ(semaphoreValue(), 1);
}

TEST_F(Guard, ToleratesAnUpdateThatEndsItsThread)
{
    addModule("alpha",
              Module().needsUpdate().onUpdate([](const char* /*path*/, unsigned long /*value*/) {
                  awaitTimedWait();
                  pthread_exit(nullptr);
              }));
    start();
    EXPECT_EQ(guard(), -1);

    // The next one finds everything free.
    device.changeModule("alpha", updatedOnTime());
    EXPECT_EQ(guard(), 0);
    expectNoStep(Log(like("*timeout*")));
}

TEST_F(Guard, TakesAnyWakeUpForTheEndAndAnUnfilledResultForZero)
{
    Gate gate;
    install(Module()
                .needsUpdate()
                .returning("doUpdate", 5, EIO)
                .onUpdate([&gate](const char* /*path*/, unsigned long /*value*/) { gate.pass(); }));
    failCall("pthread_cond_clockwait", 0);
    recordCalls({"pthread_cond_clockwait", "sem_post"});

    EXPECT_EQ(guard(), 0);

    expectSteps(ownTimeline(), {Log(ERROR, "alpha update time 30 ms"), TimedWait(0),
                                Call("sem_post(\"/SEM_UPDATE_CONTROL\") = 0")});
    gate.open();
    awaitEndOf("alpha");
    expectStep(Log("Error: alpha Firmware doUpdate Fail 5 (5:Input/output error)"));
}

TEST_F(Guard, MayBeRepeated)
{
    install();

    for (int round = 0; round < 20; ++round) {
        EXPECT_EQ(guard(), 0);
    }

    EXPECT_EQ(askedFor("doUpdate").size(), 20U);
    EXPECT_EQ(semaphoreValue(), 1);
}

TEST_F(GuardDeadline, IsTwoSecondsAfterTheExpectedTime)
{
    EXPECT_EQ(guard(30), 0);

    expectTexts(callTexts(), {"pthread_cond_clockwait(CLOCK_MONOTONIC, 1032.500000000) = 0"});
}

TEST_F(GuardDeadline, OfNoExpectedTimeIsTwoSecondsAway)
{
    EXPECT_EQ(guard(0), 0);

    expectTexts(callTexts(), {"pthread_cond_clockwait(CLOCK_MONOTONIC, 1002.500000000) = 0"});
}

TEST_F(GuardDeadline, HoldsAnExpectedTimeOfYears)
{
    EXPECT_EQ(guard(0xFFFFFFFDU), 0);

    expectStep(Log("alpha update time -3 ms"));
    expectTexts(callTexts(), {"pthread_cond_clockwait(CLOCK_MONOTONIC, 4294968295.500000000) = 0"});
}

TEST_F(GuardDeadline, WrapsAtTheGreatestExpectedTimes)
{
    EXPECT_THROW(guard(0xFFFFFFFEU), std::runtime_error);
    failCall("pthread_cond_clockwait", 0);
    EXPECT_EQ(guard(0xFFFFFFFFU), 0);

    expectTexts(callTexts(), {"pthread_cond_clockwait(CLOCK_MONOTONIC, 1000.500000000) = 0",
                              "pthread_cond_clockwait(CLOCK_MONOTONIC, 1001.500000000) = 0"});
}

TEST_F(Guard, ReadsTheClockOnlyWhenTheWorkerRuns)
{
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "a sanitizer reads the clock itself, in the middle of recording";
#endif
    install();
    recordCalls({"sem_wait", "pthread_create", "pthread_detach", "clock_gettime",
                 "pthread_cond_clockwait"});

    EXPECT_EQ(guard(), 0);

    expectSteps(ownTimeline(),
                {Log(ERROR, "alpha update time 30 ms"),
                 Call("sem_wait(\"/SEM_UPDATE_CONTROL\") = 0"), Call("pthread_create() = 0"),
                 Call("pthread_detach() = 0"), Call("clock_gettime(CLOCK_MONOTONIC) = 0"),
                 TimedWait(0), Call("clock_gettime(CLOCK_MONOTONIC) = 0")});
}
