// The guard of one module's update, when the update takes too long.

#include <atomic>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "fw-update-symbol-manager-runs.h"
#include "support/wait.h"

using namespace quillon::fakes;
using namespace quillon::test;

namespace {

int threadsOfThisProcess()
{
    return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/task"),
                                          std::filesystem::directory_iterator()));
}

class LateUpdate : public RunTest
{
protected:
    /// "alpha", held up in its update until the gate is opened.
    Module heldUp()
    {
        return Module().needsUpdate().onUpdate(
            [this](const char* /*path*/, unsigned long /*value*/) { gate.pass(); });
    }

    /// The next mount is held up until the gate is opened. Unlike an update that is held up it does
    /// not keep the updates of other modules waiting.
    void holdUpTheNextMount()
    {
        platform().psMount.thenCall([this](const char* /*request*/) {
            gate.pass();
            return std::pair<int, int>{0, 0};
        });
    }

    int guard(const std::string& name, CallerTypes caller = CALLER_SYSTEM)
    {
        return update_timeout_wrapper(module(name), 0, caller, noText);  // without the registry
    }

    void expectTimeOut(const std::string& name, CallerTypes caller = CALLER_SYSTEM)
    {
        try {
            const int result = guard(name, caller);
            ADD_FAILURE() << "the guard returned " << result;
        } catch (const std::runtime_error& error) {
            EXPECT_EQ(error.what(), name + " update timeout");
        }
    }

    Gate gate;
};

}  // namespace

TEST_F(LateUpdate, EndsTheWaitTwoSecondsAfterNoExpectedTime)
{
    addModule("alpha", heldUp());
    start();
    const auto begin = std::chrono::steady_clock::now();

    expectTimeOut("alpha");

    const auto taken = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(taken, std::chrono::seconds(2));
    EXPECT_LT(taken, std::chrono::seconds(15));
    gate.open();
    awaitEndOf("alpha");
}

TEST_F(LateUpdate, PostsTheSemaphoreOnceThenLogsThenThrows)
{
    addModule("alpha", heldUp());
    start();
    recordCalls({"sem_wait", "sem_post", "pthread_cond_clockwait"});

    expectTimeOut("alpha");

    expectSteps(ownTimeline(), {Log(ERROR, "alpha update time 0 ms"),
                                Call("sem_wait(\"/SEM_UPDATE_CONTROL\") = 0"),
                                Call(like("pthread_cond_clockwait(CLOCK_MONOTONIC, *) = 110")),
                                Call("sem_post(\"/SEM_UPDATE_CONTROL\") = 0"),
                                LogFrom("update_timeout_wrapper", ERROR, "alpha update timeout")});
    EXPECT_EQ(semaphoreValue(), 1);
    gate.open();
    awaitEndOf("alpha");
    EXPECT_EQ(semaphoreValue(), 1);
}

TEST_F(LateUpdate, IsNotStopped)
{
    addModule("alpha", heldUp());
    start();

    expectTimeOut("alpha");
    expectNoStep(Log(succeeded("alpha")));

    gate.open();
    awaitEndOf("alpha");
    expectStep(Log(succeeded("alpha")));
}

TEST_F(LateUpdate, MayBeOneThatEndedBeforeTheWaitBegan)
{
    addModule("alpha", Module().needsUpdate());
    start();
    setDetachJoins(true);
    recordCalls({"pthread_detach"});

    expectTimeOut("alpha");

    expectTexts(logTexts(), {"alpha update time 0 ms", "alpha Firmware Update Try",
                             "========== [ alpha update start ] ==========", succeeded("alpha"),
                             "alpha update timeout"});
    EXPECT_EQ(semaphoreValue(), 1);
}

TEST_F(LateUpdate, MayBeOneThatSignalsWhenTheGuardIsAboutToWait)
{
    std::atomic<bool> mayEnd{false};
    addModule("alpha", Module().needsUpdate().onUpdate(
                           [&mayEnd](const char* /*path*/, unsigned long /*value*/) {
                               while (!mayEnd) {
                                   std::this_thread::sleep_for(std::chrono::milliseconds(1));
                               }
                           }));
    start();
    recordCalls({"pthread_create"});  // a sanitizer's own thread runs from here on
    const int threads = threadsOfThisProcess();
    // The guard has its lock by then, which must not hold up the worker.
    beforeTimedWait([&mayEnd, threads] {
        mayEnd = true;
        waitFor("the worker's end", [threads] { return threadsOfThisProcess() <= threads; });
        EXPECT_EQ(threadsOfThisProcess(), threads);
    });

    expectTimeOut("alpha");
}

TEST_F(LateUpdate, MayStillThrow)
{
    addModule("alpha", heldUp().throwing("doUpdate"));
    start();

    expectTimeOut("alpha");

    gate.open();
    awaitEndOf("alpha");
    expectNoStep(Log(succeeded("alpha")));
}

TEST_F(LateUpdate, OutlivesTwoLaterUpdatesAndTheRegistry)
{
    addModule("alpha", Module().needsUpdate());
    addModule("bravo");
    start();
    recordCalls({"dlclose"});
    holdUpTheNextMount();
    expectTimeOut("alpha", CALLER_SERVICE);

    EXPECT_EQ(update_timeout_wrapper(module("bravo"), 30, CALLER_SYSTEM, noText), 0);
    EXPECT_EQ(update_timeout_wrapper(module("bravo"), 30, CALLER_SYSTEM, noText), 0);
    manager->onDestroy();
    expectNoStep(Call(closed("alpha")));
    expectTexts(askedFor("doUpdate"), {"bravo", "bravo"});

    gate.open();
    awaitText(closed("alpha"));
    expectStep(Log(succeeded("alpha")));
    expectTexts(askedFor("doUpdate"), {"bravo", "bravo", "alpha"});
}

TEST_F(LateUpdate, UsesATextOfItsOwn)
{
    addModule("alpha", Module().needsUpdate());
    start();
    holdUpTheNextMount();
    auto text = std::make_unique<std::string>("a text that is longer than the small ones");

    EXPECT_THROW(manager->update_timeout_wrapper(module("alpha"), 0, CALLER_ARGUMENT, text->data()),
                 std::runtime_error);
    text->replace(0, 6, "spoilt");
    text.reset();

    gate.open();
    awaitEndOf("alpha");
    expectStep(
        Plugin("alpha.setContext(\"alpha\", 1, \"a text that is longer than the small ones\")"));
}

TEST_F(LateUpdate, KeepsTheUpdatesOfThisProcessThatComeAfterItWaiting)
{
    addModule("alpha", heldUp());
    addModule("bravo", Module().needsUpdate());
    start();

    expectTimeOut("alpha");
    expectTimeOut("bravo");

    expectTexts(askedFor("setContext"), {"alpha"});
    gate.open();
    awaitEndOf("alpha");
    awaitText(closed("bravo"));
    expectTexts(askedFor("doUpdate"), {"alpha", "bravo"});
}

TEST_F(LateUpdate, ThatEndsLetsTheNextOneOfThisProcessPass)
{
    addModule("alpha", heldUp());
    addModule("bravo");
    start();
    expectTimeOut("alpha");
    gate.open();

    EXPECT_EQ(manager->update_timeout_wrapper(module("bravo"), 30, CALLER_SYSTEM, noText), 0);

    expectTexts(askedFor("doUpdate"), {"alpha", "bravo"});
}
