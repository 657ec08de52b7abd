#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <future>

#include "fakes/timeline.h"
#include "quillon-service-client.h"
#include "quillon-service.h"

using namespace quillon::fakes;
using namespace quillon::test;

namespace {

constexpr const char* kMarker = "/tmp/fw_update_ready_usb";
constexpr std::chrono::seconds kPatience{50};

constexpr const char* kRegister = "smart_deadlock_register_watchdog_service(60) = ";
constexpr const char* kNotify = "smart_deadlock_watchdog_notify() = 0";
constexpr const char* kTimer = "g_timeout_add(10000)";

void setMarker()
{
    const int marker = open(kMarker, O_CREAT | O_WRONLY, 0644);
    ASSERT_NE(marker, -1);
    close(marker);
}

void removeMarker()
{
    ASSERT_EQ(unlink(kMarker), 0);
}

class MainTask : public ::testing::Test
{
protected:
    MainTask() { recordCalls({"g_timeout_add", "mq_send"}); }
    void TearDown() override
    {
        if (task.valid()) {
            quitMainLoop();
            result();
        }
        EXPECT_EQ(mismatches(), "");
    }

    /// Runs the task until its loop turns.
    void start()
    {
        task = std::async(std::launch::async, firmware_main_task);
        ASSERT_TRUE(waitForText(kTimer, kPatience));
    }

    int result()
    {
        if (task.wait_for(kPatience) != std::future_status::ready) {
            ADD_FAILURE() << "the main task does not end";
            std::_Exit(1);
        }
        return task.get();
    }

    OpenQueues queues;
    Client client;
    std::future<int> task;
};

class MainTaskTick : public MainTask
{
protected:
    MainTaskTick() { g_main_loop = g_main_loop_new(nullptr, FALSE); }
    ~MainTaskTick() override
    {
        g_main_loop_unref(g_main_loop);
        g_main_loop = nullptr;
    }
};

}  // namespace

TEST_F(MainTask, EndsAtOnceWhenTheWatchdogRefuses)
{
    platform().watchdogRegister.always(-1);

    EXPECT_EQ(firmware_main_task(), -1);

    expectSteps({Call(kRegister + std::string("-1")),
                 LogFrom("firmware_main_task", ERROR,
                         "Error: [fwupdate-daemon] smart_deadlock_register_watchdog_service "
                         "fail!\n")});
    EXPECT_EQ(g_main_loop, nullptr);
    EXPECT_EQ(client.commands().waiting(), 0);
}

TEST_F(MainTask, TakesAnyOtherAnswerThanZeroAsARefusal)
{
    platform().watchdogRegister.always(3);

    EXPECT_EQ(firmware_main_task(), -1);
}

TEST_F(MainTask, ArmsATimerOfTenSecondsAndWaits)
{
    setMarker();

    start();

    EXPECT_EQ(task.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    expectSteps({Call(kRegister + std::string("0")), Call(kTimer)});
    quitMainLoop();
    EXPECT_EQ(result(), 0);
    EXPECT_EQ(g_main_loop, nullptr);
}

TEST_F(MainTask, LivesOnWhileTheMarkerIsThere)
{
    setMarker();
    start();
    clear();

    tickOften();

    const auto end = patience();
    while (callTexts().size() < 3 && std::chrono::system_clock::now() < end) {
        std::this_thread::yield();
    }
    EXPECT_GE(callTexts().size(), 3U);
    EXPECT_EQ(task.wait_until(shortWhile()), std::future_status::timeout);
    // Each is looked at once, since ticks go on.
    for (const std::string& call : callTexts()) {
        EXPECT_EQ(call, kNotify);
    }
    for (const std::string& log : logTexts()) {
        EXPECT_EQ(log, "notify_callback");
    }
    EXPECT_EQ(client.commands().waiting(), 0);

    removeMarker();
    EXPECT_EQ(result(), 0);
    EXPECT_EQ(client.commands().receive(), stopRecord());
}

TEST_F(MainTask, StopsItselfAndTheControlTaskWhenTheMarkerIsGone)
{
    start();
    clear();

    tickOften();

    EXPECT_EQ(result(), 0);
    EXPECT_EQ(g_main_loop, nullptr);
    EXPECT_EQ(client.commands().waiting(), 1);
    EXPECT_EQ(client.commands().receive(), stopRecord());
    expectSteps({LogFrom("notify_callback", DEBUG, "notify_callback"), Call(kNotify),
                 Call("mq_send(\"/fwupdateservice_usb\", 284, 0) = 0"),
                 LogFrom("notify_callback", ERROR, "check_main_loop_stop thread stop"),
                 LogFrom("firmware_main_task", ERROR, "firmware_main_task thread stop\n")});
}

TEST_F(MainTask, EndsEvenWhenTheStopRecordCannotBeSent)
{
    start();
    failCall("mq_send", EAGAIN);
    clear();

    tickOften();

    EXPECT_EQ(result(), 0);
    EXPECT_EQ(client.commands().waiting(), 0);
    expectTexts(logTexts(), {"notify_callback", "check_main_loop_stop thread stop",
                             "firmware_main_task thread stop\n"});
}

TEST_F(MainTaskTick, FeedsTheWatchdogAndNothingElseWhileTheMarkerIsThere)
{
    setMarker();

    EXPECT_EQ(notify_callback(nullptr), TRUE);

    expectSteps({LogFrom("notify_callback", DEBUG, "notify_callback"), Call(kNotify)});
    EXPECT_EQ(client.commands().waiting(), 0);
}

TEST_F(MainTaskTick, CountsAnythingAtTheMarkersPathAsTheMarker)
{
    ASSERT_EQ(mkdir(kMarker, 0755), 0);

    EXPECT_EQ(notify_callback(nullptr), TRUE);

    EXPECT_EQ(client.commands().waiting(), 0);
}

TEST_F(MainTaskTick, LooksForTheMarkerByStat)
{
    setMarker();
    recordCalls({"stat"});

    notify_callback(nullptr);

    expectTexts(callTexts(), {kNotify, "stat(\"/tmp/fw_update_ready_usb\") = 0"});
}

TEST_F(MainTaskTick, DoesNotCareWhatTheWatchdogAnswers)
{
    setMarker();
    platform().watchdogNotify.always(-1);

    EXPECT_EQ(notify_callback(nullptr), TRUE);

    expectTexts(logTexts(), {"notify_callback"});
}

TEST_F(MainTaskTick, KeepsItsTimerAndTellsTheControlTaskToStop)
{
    EXPECT_EQ(notify_callback(nullptr), TRUE);

    EXPECT_EQ(client.commands().receive(), stopRecord());
    EXPECT_EQ(client.replies().waiting(), 0);
    expectTexts(logTexts(), {"notify_callback", "check_main_loop_stop thread stop"});
}
