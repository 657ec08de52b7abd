#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "quillon-service-process.h"

using namespace quillon::fakes;
using namespace quillon::test;

namespace {

constexpr const char* kLabelled = "access(\"/tmp/smack_early_ready\", F_OK) = 0";
constexpr const char* kNotLabelled = "access(\"/tmp/smack_early_ready\", F_OK) = -1";
constexpr const char* kLabellingDone = "smack_early_ready done\n";

Step QueueOpened(const std::string& name)
{
    return Call("mq_open(\"" + name +
                "\", O_RDWR|O_CREAT, 0666, flags 0 maxmsg 10 msgsize 284 curmsgs 0) = ok");
}

Step QueueLabelled(const std::string& name)
{
    return Call(like("setxattr(\"/dev/mqueue" + name + "\"*"));
}

Step NotLabelled(const std::string& name)
{
    return Log(ERROR, like("Error: setSmackAccess Fail file [/dev/mqueue" + name + "*"));
}

/// How often the thread that ran main made a call.
int countOf(const std::vector<Entry>& entries, const std::string& call)
{
    int count = 0;
    for (const Entry& entry : entries) {
        count += entry.kind == Kind::Call && entry.text == call ? 1 : 0;
    }
    return count;
}

class StartUp : public ServiceTest
{
protected:
    StartUp() { recordCalls({"access", "usleep", "mq_open", "setxattr"}); }

    /// Nothing of what comes after a refused start-up has happened.
    static void expectNothingWasStarted()
    {
        for (const Entry& entry : timeline()) {
            expectNoText(entry.text, like("*LwipcEventDone*"));
            expectNoText(entry.text, like("*smart_deadlock*"));
            expectNoText(entry.text, like("*thread stop*"));
            expectNoText(entry.text, like("*ready.*"));
        }
        EXPECT_EQ(initialThread().size(), timeline().size());
    }
};

class StartUpExit : public ServiceTest
{
};

class KeyAtStartUp : public ServiceTest
{
protected:
    /// How often start-up reads the key. It ends at the missing module directory.
    static int reads(std::initializer_list<int> answers)
    {
        std::filesystem::remove("/usr/fwupdate/controls");
        platform().ssRead.then(answers);
        EXPECT_EQ(quillon_service_main(), -1);
        int count = 0;
        for (const std::string& call : callTexts()) {
            count += call.compare(0, 8, "ss_read(") == 0 ? 1 : 0;
        }
        return count;
    }
};

}  // namespace

TEST_F(StartUp, TakesItsStepsInOrder)
{
    device.addModule("alpha");

    start();

    expectSteps(initialThread(), {Call("ss_init_credential(0, 0, 0, 0, 0, 1, 0) = 0"),
                                  Call("ss_read(0, 0, \"quillon\", credential, 33) = 0"),
                                  Log(ERROR, "decryption key load success. key_size : 32"),
                                  Call("ss_free_buffer(data)"),
                                  Call(kLabelled),
                                  LogFrom("service_start", DEBUG, kLabellingDone),
                                  QueueOpened("/fwupdateservice_usb"),
                                  QueueLabelled("/fwupdateservice_usb"),
                                  NotLabelled("/fwupdateservice_usb"),
                                  QueueOpened("/fwupdatecontrol_usb"),
                                  QueueLabelled("/fwupdatecontrol_usb"),
                                  NotLabelled("/fwupdatecontrol_usb"),
                                  Plugin("alpha.setContext(\"alpha\", 2, \"\")"),
                                  Plugin("alpha.getEMPID()"),
                                  Call("system_info_get_value_string(128) = 0"),
                                  Log(INFO, "SWModel : QUILLON"),
                                  Log(INFO, "control task is ready."),
                                  Call("LwipcEventDone(\"/tmp/.fw_service_ready_usb\") = 0"),
                                  Log(INFO, "lwipc control is ready."),
                                  LogFrom("service_start", INFO, "set_service_running_done Done")});
}

TEST_F(StartUp, LinesBearTheSourceFile)
{
    start();

    for (const Entry& entry : timeline()) {
        if (entry.text == kLabellingDone) {
            EXPECT_EQ(entry.file, "quillon-service.cpp");
            EXPECT_GT(entry.line, 0);
        }
    }
}

TEST_F(StartUp, SkipsExtensionModules)
{
    device.addModule("EXT-crypt");

    start();

    expectStep(Log("En/Decryption Service EXT skip [EXT-crypt]"));
}

TEST_F(StartUp, AnnouncesReadinessOnlyWhenCommandsAreServed)
{
    platform().lwipcEventDone.always([](const char*) {
        EXPECT_EQ(Client().ask(6), reply(-5));
        EXPECT_TRUE(waitForText("smart_deadlock_register_watchdog_service(60) = 0",
                                std::chrono::seconds(kPatienceSeconds)));
        return 0;
    });

    start();
}

TEST_F(StartUp, RunsItsTasksOnThreadsOfTheirOwn)
{
    start();
    Client().ask(6);

    unsigned int initial = initialThread().front().thread;
    unsigned int mainTask = 0;
    unsigned int controlTask = 0;
    for (const Entry& entry : timeline()) {
        if (entry.text == "smart_deadlock_register_watchdog_service(60) = 0") {
            mainTask = entry.thread;
        }
        if (entry.text == "Service is not being updated.") {
            controlTask = entry.thread;
        }
    }
    EXPECT_NE(mainTask, initial);
    EXPECT_NE(controlTask, initial);
    EXPECT_NE(controlTask, mainTask);
}

TEST_F(StartUp, WaitsForTheLabelling)
{
    failCall("access", ENOENT, 3);

    start();

    std::vector<std::string> polls;
    for (const Entry& entry : initialThread()) {
        if (entry.kind == Kind::Call && (entry.text.compare(0, 7, "access(") == 0 ||
                                         entry.text.compare(0, 7, "usleep(") == 0)) {
            polls.push_back(entry.text);
        }
    }
    expectTexts(polls, {kNotLabelled, "usleep(10000) = 0", kNotLabelled, "usleep(10000) = 0",
                        kNotLabelled, "usleep(10000) = 0", kLabelled});
    expectStep(Log(kLabellingDone));
}

TEST_F(StartUp, GoesOnAfterSixThousandSleepsWithoutTheLabelling)
{
    unlink(kLabellingReady);
    setFastSleep(true);

    start();

    EXPECT_EQ(countOf(initialThread(), "usleep(10000) = 0"), 6000);
    EXPECT_EQ(countOf(initialThread(), kNotLabelled), 6001);
    EXPECT_EQ(countOf(initialThread(), kLabelled), 0);
    expectStep(LogFrom("service_start", DEBUG, kLabellingDone));
    EXPECT_EQ(Client().ask(6), reply(-5));
    clear();
}

TEST_F(StartUp, GoesOnWithoutReadiness)
{
    setFastSleep(true);
    platform().lwipcEventDone.always([](const char* /*event*/) {
        errno = EIO;
        return -1;
    });

    begin();

    EXPECT_TRUE(waitForLine(
        "Error: LwipcEventDone /tmp/.fw_service_ready_usb failed: Input/output error\n"));
    EXPECT_EQ(Client().ask(6), reply(-5));
    EXPECT_TRUE(isRunning());
    expectNoStep(Log("set_service_running_done Done"));
}

TEST_F(StartUp, GoesOnWithoutAKey)
{
    platform().ssRead.always(1);

    start();

    EXPECT_EQ(Client().ask(7), reply(-1));
    expectStep(Log("decrption key is invalid"));
}

TEST_F(StartUp, EndsWhenTheFirstQueueCannotBeOpened)
{
    failCall("mq_open", EACCES);

    EXPECT_EQ(quillon_service_main(), -1);

    expectLastSteps({Call(like("mq_open(\"/fwupdateservice_usb\"*"))});
    expectNothingWasStarted();
}

TEST_F(StartUp, EndsWhenTheSecondQueueCannotBeOpened)
{
    failCall("mq_open", EACCES, 1, 1);

    EXPECT_EQ(quillon_service_main(), -1);

    expectLastSteps({Call(like("mq_open(\"/fwupdatecontrol_usb\"*"))});
    expectNothingWasStarted();
}

TEST_F(StartUp, EndsWhenTheModuleDirectoryCannotBeRead)
{
    std::filesystem::remove("/usr/fwupdate/controls");

    EXPECT_EQ(quillon_service_main(), -1);

    expectLastSteps({LogFrom("onCreate", ERROR, like("File System Exception: *"))});
    expectNothingWasStarted();
}

TEST_F(StartUpExit, StatusIs255WithoutModuleDirectoryAndTheQueuesAreGone)
{
    std::filesystem::remove("/usr/fwupdate/controls");

    EXPECT_EXIT(std::exit(quillon_service_main()), ::testing::ExitedWithCode(255), "");

    EXPECT_FALSE(queueIsThere("/fwupdateservice_usb"));
    EXPECT_FALSE(queueIsThere("/fwupdatecontrol_usb"));
}

TEST_F(StartUpExit, StatusIs255WithoutTheSecondQueueAndTheFirstIsGone)
{
    failCall("mq_open", EACCES, 1, 1);

    EXPECT_EXIT(std::exit(quillon_service_main()), ::testing::ExitedWithCode(255), "");

    EXPECT_FALSE(queueIsThere("/fwupdateservice_usb"));
}

TEST_F(KeyAtStartUp, IsReadOnce)
{
    EXPECT_EQ(reads({0}), 1);
}

TEST_F(KeyAtStartUp, IsReadAgainAfterItHasBeenInstalled)
{
    EXPECT_EQ(reads({5, 0}), 2);

    EXPECT_EQ(dec_key_size, 64U);
}

TEST_F(KeyAtStartUp, IsReadTwiceAtMost)
{
    EXPECT_EQ(reads({5, 5, 0}), 2);

    EXPECT_EQ(dec_key, nullptr);
}

TEST_F(KeyAtStartUp, IsReadAgainAfterExactlyMinusOne)
{
    EXPECT_EQ(reads({-1, 0}), 2);
}

TEST_F(KeyAtStartUp, IsNotReadAgainAfterAnyOtherError)
{
    EXPECT_EQ(reads({1, 0}), 1);

    EXPECT_EQ(dec_key, nullptr);
}

TEST_F(KeyAtStartUp, IsNotReadAgainAfterAnotherNegativeError)
{
    EXPECT_EQ(reads({-2, 0}), 1);
}
