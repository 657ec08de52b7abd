#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <thread>

#include "quillon-service-process.h"

using namespace quillon::fakes;
using namespace quillon::test;

namespace {

constexpr const char* kUnregistered = "smart_deadlock_unregister_watchdog_service() = 0";

bool isThere(const char* path)
{
    struct stat status = {};
    return stat(path, &status) == 0;
}

class Shutdown : public ServiceTest
{
protected:
    Shutdown() { recordCalls({"remove"}); }

    /// A module whose version check raises something.
    void addRaisingModule(Effect effect)
    {
        device.addVerifier();
        device.addModule("alpha", Module().needsUpdate().with("checkVersion", effect));
        device.stick().addImage("alpha", Image());
    }

    static void estimate()
    {
        const Client client;
        client.ask(pathCommand("/opt/media/USBDriveA/"));
        client.send(7);
    }
};

class ShutdownDeathTest : public Shutdown
{
};

}  // namespace

TEST_F(Shutdown, FollowsTheRemovalOfTheLifeMarker)
{
    start();
    clear();
    removeMarker();

    tickOften();

    EXPECT_EQ(result(), 0);
    expectStep(Log("check_main_loop_stop thread stop"));
    expectStep(Log("firmware_control_task thread stop\n"));
    expectStep(Log("firmware_main_task thread stop\n"));
    expectLastSteps({Call("remove(\"/tmp/fw_update_ready_usb\") = -1"), Call(kUnregistered)});
}

TEST_F(Shutdown, WaitsForTheMarkerAfterAClientHasStoppedTheControlTask)
{
    start();
    clear();

    Client().send(4);

    ASSERT_TRUE(waitForLine("firmware_control_task thread stop\n"));
    EXPECT_TRUE(isRunning());
    EXPECT_TRUE(isThere(kLifeMarker));
    removeMarker();
    tickOften();
    EXPECT_EQ(result(), 0);
}

TEST_F(Shutdown, WaitsForTheControlTaskAfterTheMainTaskHasEnded)
{
    start();

    quitMainLoop();

    ASSERT_TRUE(waitForLine("firmware_main_task thread stop\n"));
    EXPECT_TRUE(isRunning());
    EXPECT_EQ(Client().ask(6), reply(-5));
    EXPECT_TRUE(isThere(kLifeMarker));

    Client().send(4);
    EXPECT_EQ(result(), 0);
    EXPECT_FALSE(isThere(kLifeMarker));
    expectLastSteps({Call("remove(\"/tmp/fw_update_ready_usb\") = 0"), Call(kUnregistered)});
}

TEST_F(Shutdown, NeedsOnlyTheStopCommandWhenTheWatchdogHasRefused)
{
    platform().watchdogRegister.always(-1);
    service = std::async(std::launch::async, quillon_service_main);
    ASSERT_TRUE(waitForLine("set_service_running_done Done"));
    EXPECT_TRUE(isRunning());
    removeMarker();
    EXPECT_TRUE(isRunning());

    Client().send(4);

    EXPECT_EQ(result(), 0);
    expectStep(
        Log("Error: [fwupdate-daemon] "
            "smart_deadlock_register_watchdog_service fail!\n"));
    expectNoStep(Log("notify_callback"));
}

TEST_F(Shutdown, FollowsAnExceptionOfTheControlTask)
{
    addRaisingModule(Effect::Throw);
    start();

    estimate();

    ASSERT_TRUE(waitForLine("Error: control_task exception checkVersion"));
    expectStep(
        LogFrom("quillon_service_main", ERROR, "Error: control_task exception checkVersion"));
    EXPECT_TRUE(isRunning());
    removeMarker();
    tickOften();
    EXPECT_EQ(result(), 0);
    expectLastSteps({Call("remove(\"/tmp/fw_update_ready_usb\") = -1"), Call(kUnregistered)});
}

TEST_F(Shutdown, FollowsAnExceptionOfTheMainTask)
{
    platform().watchdogRegister.always([](int) -> int { throw std::runtime_error("no watchdog"); });
    service = std::async(std::launch::async, quillon_service_main);
    ASSERT_TRUE(waitForLine("set_service_running_done Done"));
    EXPECT_TRUE(isRunning());
    expectNoStep(Log("Error: main_task exception no watchdog"));

    Client().send(4);

    EXPECT_EQ(result(), 0);
    expectLastSteps(
        {LogFrom("quillon_service_main", ERROR, "Error: main_task exception no watchdog"),
         Call("remove(\"/tmp/fw_update_ready_usb\") = 0"), Call(kUnregistered)});
}

TEST_F(Shutdown, DoesNotCareWhetherCleaningUpSucceeds)
{
    platform().watchdogUnregister.always(-1);
    start();
    failCall("remove", EACCES);
    Client().send(4);

    quitMainLoop();

    EXPECT_EQ(result(), 0);
}

TEST_F(ShutdownDeathTest, AnExceptionOfAnotherKindEndsTheProcess)
{
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    addRaisingModule(Effect::ThrowUnknown);

    EXPECT_EXIT(
        {
            // On a bare thread nothing stands above main that would take the exception.
            std::thread initial(quillon_service_main);
            waitForLine("set_service_running_done Done");
            estimate();
            initial.join();
        },
        ::testing::KilledBySignal(SIGABRT), "");
}

TEST_F(ShutdownDeathTest, QueuesAreGoneAfterTheProcess)
{
    EXPECT_EXIT(
        {
            start();
            quitMainLoop();
            Client().send(4);
            std::exit(result());
        },
        ::testing::ExitedWithCode(0), "");

    EXPECT_FALSE(queueIsThere("/fwupdateservice_usb"));
    EXPECT_FALSE(queueIsThere("/fwupdatecontrol_usb"));
}
