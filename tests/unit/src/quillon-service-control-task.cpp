#include <cerrno>
#include <climits>

#include "quillon-service-control.h"

using namespace quillon::fakes;
using namespace quillon::test;

namespace {

Step Said(int priority, const std::string& text)
{
    return LogFrom("firmware_control_task", priority, text);
}

class ControlTask : public ControlTest
{
};

class ControlTaskTime : public ControlTest
{
};

}  // namespace

TEST_F(ControlTask, SaysThatNothingIsRunning)
{
    start();

    EXPECT_EQ(client.ask(6), reply(-5, 0));

    expectSteps({Said(ERROR, "Service is not being updated.")});
}

TEST_F(ControlTask, DoesNotAnswerCodesThatItDoesNotHandle)
{
    start();
    const std::vector<int> codes = {0, 2, 3, 5, 9, 10, 256, -1, INT_MIN, INT_MAX};

    for (const int code : codes) {
        client.send(code);
    }

    EXPECT_TRUE(client.everythingIsUnanswered());
    Steps lines(codes.size(), Said(DEBUG, "default\n"));
    lines.push_back(Said(ERROR, "Service is not being updated."));
    expectSteps(lines);
}

TEST_F(ControlTask, IgnoresEverythingInARecordButCommandAndPath)
{
    start();
    Record noisy;
    noisy.bytes.fill(0xee);
    noisy.set(0, 6);

    EXPECT_EQ(client.ask(noisy), reply(-5, 0));
}

TEST_F(ControlTask, AnswersInTheOrderOfTheCommands)
{
    dec_key_size = 0;
    start();
    client.send(6);
    client.send(pathCommand("/a/"));
    client.send(7);
    client.send(2);
    client.send(6);

    EXPECT_EQ(client.replies().receive(), reply(-5));
    EXPECT_EQ(client.replies().receive(), reply(0));
    EXPECT_EQ(client.replies().receive(), reply(-1));
    EXPECT_EQ(client.replies().receive(), reply(-5));
}

TEST_F(ControlTask, EndsOnTheStopCommandWithoutAReply)
{
    start();

    client.send(4);

    EXPECT_EQ(result(), 0);
    EXPECT_EQ(client.replies().waiting(), 0);
    expectSteps({Said(ERROR, "firmware_control_task thread stop\n")});
}

TEST_F(ControlTask, LeavesWhatComesAfterTheStopCommandInTheQueue)
{
    client.send(4);
    client.send(6);

    start();

    EXPECT_EQ(result(), 0);
    EXPECT_EQ(client.commands().waiting(), 1);
    EXPECT_EQ(client.replies().waiting(), 0);
}

TEST_F(ControlTask, NeverServesAgainOnceStopped)
{
    start();
    client.send(4);
    ASSERT_EQ(result(), 0);
    client.send(6);
    clear();

    EXPECT_EQ(firmware_control_task(), 0);

    EXPECT_EQ(client.commands().waiting(), 1);
    expectSteps({Said(ERROR, "firmware_control_task thread stop\n")});
}

TEST_F(ControlTask, PausesAfterEachFailedReceiveAndGoesOn)
{
    recordCalls({"mq_receive", "usleep"});
    failCall("mq_receive", EINTR, 3);

    start();

    EXPECT_EQ(client.ask(6), reply(-5));
    const std::string failure = "mq_receive(\"/fwupdateservice_usb\", 284, null) = -1";
    expectSteps({Call(failure), Call("usleep(10000) = 0"), Call(failure), Call("usleep(10000) = 0"),
                 Call(failure), Call("usleep(10000) = 0"),
                 Call("mq_receive(\"/fwupdateservice_usb\", 284, null) = 284"),
                 Said(ERROR, "Service is not being updated.")});
}

TEST_F(ControlTask, GoesOnWhenAReplyCannotBeSent)
{
    recordCalls({"mq_send"});
    failCall("mq_send", EAGAIN);
    start();

    client.send(6);
    client.send(6);
    client.send(4);

    EXPECT_EQ(result(), 0);
    EXPECT_EQ(client.replies().waiting(), 1);
    expectSteps({Said(ERROR, "Service is not being updated."),
                 Call("mq_send(\"/fwupdatecontrol_usb\", 284, 0) = -1"),
                 Said(ERROR, "Service is not being updated."),
                 Call("mq_send(\"/fwupdatecontrol_usb\", 284, 0) = 0"),
                 Said(ERROR, "firmware_control_task thread stop\n")});
}

TEST_F(ControlTask, TakesAShortMessageForARecordThatEndsInZeros)
{
    start();
    const unsigned char progress[] = {6};
    client.commands().send(progress, sizeof(progress));
    EXPECT_EQ(client.replies().receive(), reply(-5));

    client.commands().send("", 0);
    EXPECT_TRUE(client.everythingIsUnanswered());
}

TEST_F(ControlTask, TakesNothingOutOfAnEarlierRecordIntoAShortOne)
{
    start();
    Record noisy = pathCommand("left-over");
    noisy.set(0, 6);
    client.ask(noisy);
    const unsigned char path[] = {8, 0, 0, 0};

    client.commands().send(path, sizeof(path));

    EXPECT_EQ(client.replies().receive(), reply(0));
    EXPECT_EQ(std::string(iamge_path, sizeof(iamge_path)), std::string(128, '\0'));
}

TEST_F(ControlTaskTime, IsTheSumOfTheModulesThatNeedTheUpdate)
{
    addModule("alpha", Module().needsUpdate().takesSeconds(70));
    addModule("bravo", Module().needsUpdate().takesSeconds(30));
    startWithStick();

    EXPECT_EQ(client.ask(7), reply(0, 100));
}

TEST_F(ControlTaskTime, IsARefusalWithTheValueWhenNothingNeedsTheUpdate)
{
    addModule("alpha", Module().upToDate().takesSeconds(70));
    startWithStick();

    EXPECT_EQ(client.ask(7), reply(-1, 0));

    expectNoStep(Log(like("*decrption*")));
}

TEST_F(ControlTaskTime, WithoutAKeyIsARefusal)
{
    dec_key = nullptr;
    addModule("alpha", Module().needsUpdate());
    startWithStick();

    EXPECT_EQ(client.ask(7), reply(-1, 0));

    expectSteps({Said(ERROR, "decrption key is invalid")});
}

TEST_F(ControlTaskTime, WithAnEmptyKeyIsARefusal)
{
    dec_key_size = 0;
    addModule("alpha", Module().needsUpdate());
    startWithStick();

    EXPECT_EQ(client.ask(7), reply(-1, 0));

    expectSteps({Said(ERROR, "decrption key is invalid")});
}

TEST_F(ControlTaskTime, IsLookedUpInTheDirectoryThatTheClientSet)
{
    device.addModule("alpha", Module().needsUpdate());
    start();
    client.ask(pathCommand("/somewhere/"));
    clear();

    EXPECT_EQ(client.ask(7), reply(-1, 0));

    expectTexts(logTexts(), {"Error: /somewhere/alpha.bin open fail"});
}

TEST_F(ControlTaskTime, IsAnsweredDuringARunAsWell)
{
    const auto gate = makeGate();
    addModule("alpha", waitingAt(gate, 60));
    startWithStick();
    ASSERT_EQ(client.ask(1), reply(0));
    ASSERT_TRUE(gate->isReached());

    EXPECT_EQ(client.ask(7), reply(0, 60));
    EXPECT_EQ(client.ask(6).result(), 1);
}

TEST_F(ControlTaskTime, ThatRaisesEndsTheTask)
{
    addModule("alpha", Module().needsUpdate().throwing("checkVersion"));
    startWithStick();

    client.send(7);

    ASSERT_EQ(task.wait_until(patience()), std::future_status::ready);
    EXPECT_THROW(task.get(), std::runtime_error);
    EXPECT_EQ(client.replies().waiting(), 0);
    expectNoStep(Log("firmware_control_task thread stop\n"));
}
