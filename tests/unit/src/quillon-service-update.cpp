#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>

#include "quillon-service-control.h"

using namespace quillon::fakes;
using namespace quillon::test;

namespace {

std::atomic<bool> threadsFail{false};

Step Said(int priority, const std::string& text)
{
    return LogFrom("firmware_control_task", priority, text);
}

int countOf(const std::string& call)
{
    int count = 0;
    for (const Entry& entry : timeline()) {
        count += entry.text.compare(0, call.size(), call) == 0 ? 1 : 0;
    }
    return count;
}

/// The commands that start an update and follow it.
class UpdateCommands : public ControlTest
{
protected:
    /// A reply's percentage goes by the clock, which a slow machine must not drive.
    UpdateCommands() { setMonotonicTime({1000, 0}); }
};

/// The update task alone.
class UpdateTask : public ControlTest
{
protected:
    /// With the marks of an estimate, as the control task leaves them.
    void estimate()
    {
        FWUpdateSymbolManager* manager = FWUpdateSymbolManager::getInstance();
        ASSERT_TRUE(manager->getIsReady(true));
        const std::string path = device.stick().directory();
        path.copy(iamge_path, sizeof(iamge_path) - 1);
        int seconds = 0;
        ASSERT_EQ(manager->getFirmwareUpdateTime(dec_key, iamge_path, seconds), 0);
        clear();
    }

    bool isUpdating = true;
    int progress = 0;
};

}  // namespace

// A device that is short of threads.
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*function)(void*), void* argument)
{
    if (threadsFail) {
        return EAGAIN;
    }
    static const auto next =
        reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
    return next(thread, attributes, function, argument);
}

TEST_F(UpdateCommands, UpdateRunsFromEstimateToDone)
{
    addModule("alpha", Module().needsUpdate());
    startWithStick();

    EXPECT_EQ(client.ask(1), reply(0));

    EXPECT_EQ(outcome(), reply(2, 100));
    EXPECT_EQ(client.ask(6), reply(-5));
    EXPECT_EQ(payloadsOf("alpha"), std::vector<Bytes>{bytesOf("payload")});
}

TEST_F(UpdateCommands, ClockIsReadBetweenEstimateAndUpdate)
{
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "a sanitizer reads the clock itself, in the middle of recording";
#endif
    addModule("alpha", Module().needsUpdate());
    startWithStick();
    recordCalls({"clock_gettime"});

    client.ask(1);
    ASSERT_EQ(outcome().result(), 2);

    std::vector<std::string> steps;
    for (const Entry& entry : timeline()) {
        if (entry.text == "Need Update [alpha] [10]" ||
            entry.text == "clock_gettime(CLOCK_MONOTONIC) = 0" ||
            entry.text.find("doUpdate_decryption") != std::string::npos) {
            steps.push_back(entry.text);
        }
    }
    ASSERT_GE(steps.size(), 3U);
    expectTexts(std::vector<std::string>(steps.begin(), steps.begin() + 2),
                {"Need Update [alpha] [10]", "clock_gettime(CLOCK_MONOTONIC) = 0"});
}

TEST_F(UpdateCommands, UpdateWorksOnAThreadOfItsOwn)
{
    addModule("alpha", Module().needsUpdate());
    startWithStick();

    client.ask(1);
    ASSERT_EQ(outcome().result(), 2);

    unsigned int estimating = 0;
    unsigned int updating = 0;
    for (const Entry& entry : timeline()) {
        if (entry.text == "Need Update [alpha] [10]") {
            estimating = entry.thread;
        }
        if (entry.text.find("doUpdate_decryption") != std::string::npos) {
            updating = entry.thread;
        }
    }
    EXPECT_NE(estimating, 0U);
    EXPECT_NE(updating, 0U);
    EXPECT_NE(estimating, updating);
}

TEST_F(UpdateCommands, SecondStartDuringAnUpdateIsRefused)
{
    const auto gate = makeGate();
    addModule("alpha", waitingAt(gate));
    startWithStick();
    ASSERT_EQ(client.ask(1), reply(0));
    ASSERT_TRUE(gate->isReached());
    clear();

    EXPECT_EQ(client.ask(1), reply(-1));

    expectSteps({Said(ERROR, "Service is being updated.")});
    gate->open();
    EXPECT_EQ(outcome(), reply(2, 100));
    EXPECT_EQ(payloadsOf("alpha").size(), 1U);
}

TEST_F(UpdateCommands, StartIsRefusedUntilTheFinishedUpdateWasAskedFor)
{
    addModule("alpha", Module().needsUpdate());
    startWithStick();
    ASSERT_EQ(client.ask(1), reply(0));
    ASSERT_TRUE(waitForLine("========== [ alpha update succeeded ] =========="));

    EXPECT_EQ(client.ask(1), reply(-1));

    EXPECT_EQ(outcome(), reply(2, 100));
    EXPECT_EQ(client.ask(1), reply(0));
    EXPECT_EQ(outcome(), reply(2, 100));
}

TEST_F(UpdateCommands, FailureIsReportedOnceAndTheNextStartIsAccepted)
{
    addModule("alpha", Module().needsUpdate().returning("doUpdate_decryption", -1));
    startWithStick();
    ASSERT_EQ(client.ask(1), reply(0));

    EXPECT_EQ(outcome(), reply(-4, 0));

    EXPECT_TRUE(waitForLine("Error: doUpdateUSB fail"));
    EXPECT_EQ(client.ask(6), reply(-5));
    device.changeModule("alpha", Module().needsUpdate());
    EXPECT_EQ(client.ask(1), reply(0));
    EXPECT_EQ(outcome(), reply(2, 100));
}

TEST_F(UpdateCommands, StartWithoutAKeyIsDropped)
{
    dec_key = nullptr;
    addModule("alpha", Module().needsUpdate());
    startWithStick();

    client.send(1);

    EXPECT_TRUE(client.everythingIsUnanswered());
    expectSteps({Said(ERROR, "Error: decrption key is invalid"),
                 Said(ERROR, "Service is not being updated.")});
}

TEST_F(UpdateCommands, StartWithAnEmptyKeyIsDropped)
{
    dec_key_size = 0;
    addModule("alpha", Module().needsUpdate());
    startWithStick();

    client.send(1);

    EXPECT_TRUE(client.everythingIsUnanswered());
    expectSteps({Said(ERROR, "Error: decrption key is invalid"),
                 Said(ERROR, "Service is not being updated.")});
}

TEST_F(UpdateCommands, StartWithNothingToUpdateIsDropped)
{
    addModule("alpha", Module().upToDate());
    startWithStick();

    client.send(1);

    EXPECT_TRUE(client.everythingIsUnanswered());
    expectLastSteps({Said(ERROR, "Error: update task getFirmwareUpdateTime fail"),
                     Said(ERROR, "Service is not being updated.")});
}

TEST_F(UpdateCommands, StartIsAcceptedOnceThereIsSomethingToUpdate)
{
    addModule("alpha", Module().upToDate());
    startWithStick();
    client.send(1);
    ASSERT_TRUE(client.everythingIsUnanswered());

    device.changeModule("alpha", Module().needsUpdate());

    EXPECT_EQ(client.ask(1), reply(0));
    EXPECT_EQ(outcome(), reply(2, 100));
}

TEST_F(UpdateCommands, EstimateIsMadeBeforeTheFirstUpdateOnly)
{
    addModule("alpha", Module().needsUpdate());
    startWithStick();
    client.ask(1);
    ASSERT_EQ(outcome().result(), 2);
    ASSERT_EQ(countOf("Need Update"), 1);

    client.ask(1);
    ASSERT_EQ(outcome().result(), 2);

    EXPECT_EQ(countOf("Need Update"), 1);
    EXPECT_EQ(payloadsOf("alpha").size(), 2U);
}

TEST_F(UpdateCommands, TimeQueryDoesNotReplaceTheEstimateOfTheStart)
{
    addModule("alpha", Module().needsUpdate());
    startWithStick();
    ASSERT_EQ(client.ask(7), reply(0, 10));

    client.ask(1);
    ASSERT_EQ(outcome().result(), 2);

    EXPECT_EQ(countOf("Need Update"), 2);
}

TEST_F(UpdateCommands, EstimateOfZeroSecondsIsMadeAgainForTheNextUpdate)
{
    addModule("alpha", Module().needsUpdate().takesSeconds(0));
    startWithStick();
    client.ask(1);
    ASSERT_EQ(outcome().result(), 2);

    EXPECT_EQ(client.ask(1), reply(0));
    ASSERT_EQ(outcome().result(), 2);

    EXPECT_EQ(countOf("Need Update"), 2);
}

TEST_F(UpdateCommands, NegativeEstimateIsKeptForTheNextUpdate)
{
    addModule("alpha", Module().needsUpdate().takesSeconds(-5));
    startWithStick();
    client.ask(1);
    ASSERT_EQ(outcome().result(), 2);

    EXPECT_EQ(client.ask(1), reply(0));
    ASSERT_EQ(outcome().result(), 2);

    EXPECT_EQ(countOf("Need Update"), 1);
}

TEST_F(UpdateCommands, StopWaitsForTheRunningUpdate)
{
    const auto gate = makeGate();
    addModule("alpha", waitingAt(gate));
    startWithStick();
    client.ask(1);
    ASSERT_TRUE(gate->isReached());

    client.send(4);

    EXPECT_TRUE(waitForLine("firmware_control_task thread stop\n"));
    EXPECT_TRUE(isRunning());
    gate->open();
    EXPECT_EQ(result(), 0);
    expectStep(Log("========== [ alpha update succeeded ] =========="));
}

TEST_F(UpdateCommands, ExceptionOfAModuleIsAFailedUpdate)
{
    addModule("alpha", Module().needsUpdate().throwing("doUpdate_decryption"));
    startWithStick();
    client.ask(1);

    EXPECT_EQ(outcome(), reply(-4, 0));

    EXPECT_TRUE(isRunning());
}

TEST_F(UpdateCommands, UpdateThatGetsNoThreadIsAFailedOne)
{
    addModule("alpha", Module().needsUpdate());
    startWithStick();
    threadsFail = true;

    EXPECT_EQ(client.ask(1), reply(0));
    threadsFail = false;

    EXPECT_EQ(client.ask(6), reply(-4, 0));
    expectStep(Log(like("*Error: update task cannot be started: *")));
    EXPECT_EQ(client.ask(1), reply(0));
    EXPECT_EQ(outcome(), reply(2, 100));
}

TEST_F(UpdateTask, SetsOneHundredWhenDone)
{
    addModule("alpha", Module().needsUpdate());
    estimate();

    EXPECT_EQ(firmware_update_task(isUpdating, progress), 0);

    EXPECT_EQ(progress, 100);
    EXPECT_TRUE(isUpdating);
    EXPECT_EQ(payloadsOf("alpha"), std::vector<Bytes>{bytesOf("payload")});
    expectNoStep(LogFrom("firmware_update_task", ERROR, like("*")));
}

TEST_F(UpdateTask, CountsAModulesOwnCodeAsDone)
{
    addModule("alpha", Module().needsUpdate().returning("doUpdate_decryption", 5));
    estimate();

    EXPECT_EQ(firmware_update_task(isUpdating, progress), 0);

    EXPECT_EQ(progress, 100);
}

TEST_F(UpdateTask, SetsMinusOneWhenTheRunFails)
{
    addModule("alpha", Module().needsUpdate().returning("doUpdate_decryption", -1));
    estimate();
    isUpdating = false;

    EXPECT_EQ(firmware_update_task(isUpdating, progress), 0);

    EXPECT_EQ(progress, -1);
    EXPECT_FALSE(isUpdating);
    expectLastSteps({LogFrom("doUpdateUSB", ERROR, "update fail [alpha]"),
                     LogFrom("firmware_update_task", ERROR, "Error: doUpdateUSB fail")});
}

TEST_F(UpdateTask, SetsMinusOneWhenThereIsNothingToUpdate)
{
    EXPECT_EQ(firmware_update_task(isUpdating, progress), 0);

    EXPECT_EQ(progress, -1);
    expectSteps({LogFrom("firmware_update_task", ERROR, "Error: doUpdateUSB fail")});
}

TEST_F(UpdateTask, NeedsAKey)
{
    addModule("alpha", Module().needsUpdate());
    estimate();
    dec_key = nullptr;

    EXPECT_EQ(firmware_update_task(isUpdating, progress), 0);

    EXPECT_EQ(progress, -1);
    expectSteps({LogFrom("firmware_update_task", ERROR, "Error: decrption key is invalid")});
}

TEST_F(UpdateTask, NeedsAKeyThatIsNotEmpty)
{
    addModule("alpha", Module().needsUpdate());
    estimate();
    dec_key_size = 0;

    EXPECT_EQ(firmware_update_task(isUpdating, progress), 0);

    EXPECT_EQ(progress, -1);
    expectSteps({LogFrom("firmware_update_task", ERROR, "Error: decrption key is invalid")});
}

TEST_F(UpdateTask, TakesAnExceptionForAFailure)
{
    addModule("alpha", Module().needsUpdate().throwing("doUpdate_decryption"));
    estimate();

    EXPECT_EQ(firmware_update_task(isUpdating, progress), 0);

    EXPECT_EQ(progress, -1);
    expectLastSteps(
        {LogFrom("firmware_update_task", ERROR, "Error: update task exception doUpdate_decryption"),
         LogFrom("firmware_update_task", ERROR, "Error: doUpdateUSB fail")});
}

TEST_F(UpdateTask, TakesAnExceptionOfAnyKindForAFailure)
{
    addModule("alpha", Module().needsUpdate().with("doUpdate_decryption", Effect::ThrowUnknown));
    estimate();

    EXPECT_EQ(firmware_update_task(isUpdating, progress), 0);

    EXPECT_EQ(progress, -1);
    expectLastSteps(
        {LogFrom("firmware_update_task", ERROR, "Error: update task exception of an unknown kind"),
         LogFrom("firmware_update_task", ERROR, "Error: doUpdateUSB fail")});
}
