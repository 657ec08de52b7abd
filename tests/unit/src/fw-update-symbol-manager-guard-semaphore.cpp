// The guard of one module's update and the device's other updates.

#include <fcntl.h>
#include <semaphore.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <future>
#include <string>
#include <system_error>

#include "fw-update-symbol-manager-runs.h"
#include "support/process.h"

using namespace quillon::fakes;
using namespace quillon::test;

namespace {

constexpr const char* kWaited = "sem_wait(\"/SEM_UPDATE_CONTROL\") = 0";
constexpr const char* kPosted = "sem_post(\"/SEM_UPDATE_CONTROL\") = 0";

/// What a child process of its own makes of the semaphore: its exit status.
int inAnotherProcess(int (*work)(sem_t*))
{
    return inChild(
        [work] { return work(sem_open("/SEM_UPDATE_CONTROL", O_CREAT, 0600, 1)) == 0 ? 0 : 1; });
}

class GuardSemaphore : public RunTest
{
protected:
    void install(const Module& description = updatedOnTime())
    {
        addModule("alpha", description);
        start();
    }

    int guard(const std::string& name = "alpha", unsigned int seconds = 30)
    {
        return manager->update_timeout_wrapper(module(name), seconds, CALLER_SYSTEM, noText);
    }
};

}  // namespace

TEST_F(GuardSemaphore, IsHeldWhileTheUpdateRuns)
{
    int held = -1;
    install(Module().needsUpdate().onUpdate([&held](const char* /*path*/, unsigned long /*value*/) {
        held = semaphoreValue();
        awaitTimedWait();
    }));

    EXPECT_EQ(guard(), 0);

    EXPECT_EQ(held, 0);
    EXPECT_EQ(semaphoreValue(), 1);
}

TEST_F(GuardSemaphore, HeldByAnotherProcessIsWaitedForBeforeTheUpdate)
{
    install();
    ASSERT_EQ(inAnotherProcess(sem_wait), 0);
    recordCalls({"sem_wait", "pthread_create", "sem_post"});

    auto guarded = std::async(std::launch::async, [this] { return guard(); });
    awaitText("alpha update time 30 ms");
    EXPECT_EQ(guarded.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    expectTexts(pluginTexts(), {});
    ASSERT_EQ(inAnotherProcess(sem_post), 0);

    EXPECT_EQ(guarded.get(), 0);
    expectTexts(askedFor("doUpdate"), {"alpha"});
    EXPECT_EQ(semaphoreValue(), 1);
}

TEST_F(GuardSemaphore, IsNotPartOfTheModulesTime)
{
    install();
    ASSERT_EQ(inAnotherProcess(sem_wait), 0);

    auto guarded = std::async(std::launch::async, [this] { return guard("alpha", 0); });
    EXPECT_EQ(guarded.wait_for(std::chrono::milliseconds(2500)), std::future_status::timeout);
    ASSERT_EQ(inAnotherProcess(sem_post), 0);

    EXPECT_EQ(guarded.get(), 0);
}

TEST_F(GuardSemaphore, LetsOneGuardAtATimePassInOneProcess)
{
    Gate gate;
    addModule("alpha", Module().needsUpdate().onUpdate(
                           [&gate](const char* /*path*/, unsigned long /*value*/) {
                               gate.pass();
                               awaitTimedWait();
                           }));
    addModule("bravo");
    start();

    auto first = std::async(std::launch::async, [this] { return guard("alpha"); });
    awaitText("alpha.checkVersion(\"2.0\", need -1)");
    auto second = std::async(std::launch::async, [this] { return guard("bravo"); });
    awaitText("bravo update time 30 ms");
    EXPECT_EQ(second.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    expectNoStep(Log("bravo Firmware Update Try"));
    gate.open();

    EXPECT_EQ(first.get(), 0);
    EXPECT_EQ(second.get(), 0);
    expectTexts(askedFor("doUpdate"), {"alpha", "bravo"});
}

TEST_F(GuardSemaphore, ThatCannotBeHadMeansNoUpdate)
{
    install();
    recordCalls({"sem_wait", "sem_post", "pthread_create"});
    failCall("sem_open", EACCES);

    EXPECT_EQ(guard(), -1);

    expectSteps(
        {Log(ERROR, "alpha update time 30 ms"), Log(ERROR, "Parent\t: [sem_open] Failed\n")});
}

TEST_F(GuardSemaphore, WhoseWaitFailsIsNotLookedAt)
{
    install();
    recordCalls({"sem_wait", "sem_post"});
    failCall("sem_wait", EINTR);

    EXPECT_EQ(guard(), 0);

    expectTexts(callTexts(), {"sem_wait(\"/SEM_UPDATE_CONTROL\") = -1", kPosted});
}

TEST_F(GuardSemaphore, IsFreeAgainWhenTheWorkerCannotBeStarted)
{
    install();
    recordCalls({"sem_wait", "sem_post", "pthread_create", "pthread_cond_clockwait"});
    failCall("pthread_create", EAGAIN);

    try {
        ADD_FAILURE() << "the guard returned " << guard();
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code().value(), EAGAIN);
    }

    expectSteps({Log(ERROR, "alpha update time 30 ms"), Call(kWaited),
                 Call("pthread_create() = 11"), Call(kPosted)});
    EXPECT_EQ(semaphoreValue(), 1);
    EXPECT_EQ(guard(), 0);
}

TEST_F(GuardSemaphore, IsPostedOnceWhenTheUpdateFails)
{
    install(updatedOnTime().throwing("doUpdate"));
    recordCalls({"sem_wait", "sem_post"});

    EXPECT_EQ(guard(), -1);

    expectTexts(callTexts(), {kWaited, kPosted});
}
