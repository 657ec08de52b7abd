#include <mqueue.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "fakes/timeline.h"
#include "fw-update-mqueue-manager.h"
#include "quillon-service-client.h"

using namespace quillon::fakes;
using namespace quillon::test;

namespace {

constexpr const char* kServiceQueue = "/fwupdateservice_usb";
constexpr const char* kControlQueue = "/fwupdatecontrol_usb";

constexpr const char* kAttributes = "flags 0 maxmsg 10 msgsize 284 curmsgs 0";

Step Opened(const std::string& name, const std::string& result = "ok")
{
    return Call("mq_open(\"" + name + "\", O_RDWR|O_CREAT, 0666, " + kAttributes + ") = " + result);
}

Step Labelled(const std::string& name, int result = 0)
{
    return Call(
        "setxattr(\"/dev/mqueue" + name +
        "\", \"security.SMACK64\", \"User::App::Shared\\0\", 18, 0) = " + std::to_string(result));
}

Step LabelFailure(const std::string& name)
{
    return LogFrom(
        "setSmackAccess", ERROR,
        "Error: setSmackAccess Fail file [/dev/mqueue" + name + "] label [User::App::Shared]");
}

mode_t modeOf(const Queue& queue)
{
    struct stat status = {};
    EXPECT_EQ(fstat(queue.descriptor(), &status), 0);
    return status.st_mode & 07777U;
}

mq_attr attributesOf(const Queue& queue)
{
    mq_attr attributes{};
    mq_getattr(queue.descriptor(), &attributes);
    return attributes;
}

/// Queues that a service which has crashed left behind.
void leaveQueueBehind(const char* name, long records, long size, const Record* content)
{
    mq_attr attributes{};
    attributes.mq_maxmsg = records;
    attributes.mq_msgsize = size;
    const mqd_t queue = mq_open(name, O_RDWR | O_CREAT, 0666, &attributes);
    ASSERT_NE(queue, -1);
    if (content != nullptr) {
        ASSERT_EQ(mq_send(queue, reinterpret_cast<const char*>(content->bytes.data()),
                          content->bytes.size(), 0),
                  0);
    }
    mq_close(queue);
}

class MQueueNames : public ::testing::Test
{
protected:
    MQueueNames() { recordCalls({"mq_open"}); }
    ~MQueueNames() override { EXPECT_EQ(mismatches(), ""); }

    FWUpdateMQManager* manager = FWUpdateMQManager::getInstance();
};

class MQueueOpen : public ::testing::Test
{
protected:
    MQueueOpen()
    {
        manager->setMQName("usb");
        recordCalls({"mq_open", "setxattr"});
    }
    ~MQueueOpen() override { EXPECT_EQ(mismatches(), ""); }

    FWUpdateMQManager* manager = FWUpdateMQManager::getInstance();
};

}  // namespace

TEST_F(MQueueNames, ManagerExistsOnce)
{
    EXPECT_EQ(FWUpdateMQManager::getInstance(), manager);
}

TEST_F(MQueueNames, CarryTheSuffix)
{
    EXPECT_TRUE(manager->setMQName("usb"));
    EXPECT_TRUE(manager->onCreate(true));

    expectTexts(callTexts(), {like("mq_open(\"/fwupdateservice_usb\",*"),
                              like("mq_open(\"/fwupdatecontrol_usb\",*")});
}

TEST_F(MQueueNames, MayCarryAnySuffix)
{
    EXPECT_TRUE(manager->setMQName("x"));
    EXPECT_TRUE(manager->onCreate(true));

    EXPECT_TRUE(queueIsThere("/fwupdateservice_x"));
    EXPECT_TRUE(queueIsThere("/fwupdatecontrol_x"));
}

TEST_F(MQueueNames, EmptySuffixIsRefusedAndChangesNothing)
{
    manager->setMQName("usb");

    EXPECT_FALSE(manager->setMQName(""));

    expectSteps({LogFrom("setMQName", ERROR, "Error: mqName is empty")});
    EXPECT_TRUE(manager->onCreate(true));
    EXPECT_TRUE(queueIsThere(kServiceQueue));
    EXPECT_TRUE(queueIsThere(kControlQueue));
}

TEST_F(MQueueNames, QueuesWithoutANameCannotBeOpened)
{
    EXPECT_FALSE(manager->getIsReady(true));

    expectTexts(logTexts(), {});
}

TEST_F(MQueueOpen, OwnerMakesAndLabelsOneQueueAfterTheOther)
{
    EXPECT_TRUE(manager->getIsReady(true));

    std::vector<Entry> calls = timeline();
    calls.erase(std::remove_if(calls.begin(), calls.end(),
                               [](const Entry& entry) { return entry.kind == Kind::Log; }),
                calls.end());
    expectSteps(calls, {Opened("/fwupdateservice_usb"),
                        Call(like("setxattr(\"/dev/mqueue/fwupdateservice_usb\"*")),
                        Opened("/fwupdatecontrol_usb"),
                        Call(like("setxattr(\"/dev/mqueue/fwupdatecontrol_usb\"*"))});
}

TEST_F(MQueueOpen, EachQueueHoldsTenRecordsOf284Bytes)
{
    ASSERT_TRUE(manager->getIsReady(true));

    const Client client;
    for (const Queue* queue : {&client.commands(), &client.replies()}) {
        EXPECT_EQ(attributesOf(*queue).mq_maxmsg, 10);
        EXPECT_EQ(attributesOf(*queue).mq_msgsize, 284);
        EXPECT_EQ(attributesOf(*queue).mq_flags, 0);
        EXPECT_EQ(attributesOf(*queue).mq_curmsgs, 0);
    }
}

TEST_F(MQueueOpen, EveryoneMayUseTheQueuesWhateverTheUmask)
{
    umask(077);

    ASSERT_TRUE(manager->getIsReady(true));

    EXPECT_EQ(modeOf(Client().commands()), 0666U);
    EXPECT_EQ(modeOf(Client().replies()), 0666U);
}

TEST_F(MQueueOpen, EveryoneMayUseQueuesThatWereLeftBehindForFewer)
{
    umask(077);
    leaveQueueBehind(kServiceQueue, 10, 284, nullptr);
    leaveQueueBehind(kControlQueue, 10, 284, nullptr);

    ASSERT_TRUE(manager->getIsReady(true));

    EXPECT_EQ(modeOf(Client().commands()), 0666U);
    EXPECT_EQ(modeOf(Client().replies()), 0666U);
}

TEST_F(MQueueOpen, LabelIncludesItsTerminator)
{
    manager->onCreate(true);
    clear();

    manager->setSmackAccess("/fwupdateservice_usb");

    expectTexts(callTexts(), {like("setxattr(\"/dev/mqueue/fwupdateservice_usb\", "
                                   "\"security.SMACK64\", \"User::App::Shared\\0\", 18, 0)*")});
}

TEST_F(MQueueOpen, FailedLabellingIsLoggedAndIgnored)
{
    failCall("setxattr", ENOTSUP, 2);

    EXPECT_TRUE(manager->getIsReady(true));

    expectSteps({Opened("/fwupdateservice_usb"), Labelled("/fwupdateservice_usb", -1),
                 LabelFailure("/fwupdateservice_usb"), Opened("/fwupdatecontrol_usb"),
                 Labelled("/fwupdatecontrol_usb", -1), LabelFailure("/fwupdatecontrol_usb")});
}

TEST_F(MQueueOpen, FailedLabellingIsSaidByTheOperation)
{
    failCall("setxattr", EPERM);

    EXPECT_FALSE(manager->setSmackAccess("/any"));

    expectSteps({Labelled("/any", -1), LabelFailure("/any")});
}

TEST_F(MQueueOpen, FailureOfTheFirstQueueEndsTheAttemptWithoutAWord)
{
    failCall("mq_open", EACCES);

    EXPECT_FALSE(manager->getIsReady(true));

    expectSteps({Opened("/fwupdateservice_usb", "failed")});
    EXPECT_FALSE(queueIsThere(kControlQueue));
}

TEST_F(MQueueOpen, FailureOfTheSecondQueueLeavesTheFirstOpen)
{
    failCall("mq_open", EMFILE, 1, 1);

    EXPECT_FALSE(manager->getIsReady(true));

    expectTexts(callTexts(), {like("mq_open(\"/fwupdateservice_usb\"*"), like("setxattr(*"),
                              like("mq_open(\"/fwupdatecontrol_usb\"*= failed")});
    MQData record{};
    EXPECT_EQ(manager->sendToService(&record), 0);
    EXPECT_EQ(manager->sendToControl(&record), -1);
}

TEST_F(MQueueOpen, FailedAttemptIsMadeAgain)
{
    failCall("mq_open", EMFILE);
    EXPECT_FALSE(manager->getIsReady(true));

    EXPECT_TRUE(manager->getIsReady(true));

    EXPECT_TRUE(queueIsThere(kServiceQueue));
    EXPECT_TRUE(queueIsThere(kControlQueue));
}

TEST_F(MQueueOpen, AskingAgainOpensNothing)
{
    EXPECT_TRUE(manager->getIsReady(true));
    clear();

    EXPECT_TRUE(manager->getIsReady(true));

    expectSteps({});
}

TEST_F(MQueueOpen, QueuesLeftBehindKeepTheirContents)
{
    Record old = command(6);
    old.set(100, 4711);
    leaveQueueBehind("/fwupdateservice_usb", 10, 284, &old);
    leaveQueueBehind("/fwupdatecontrol_usb", 10, 284, &old);

    ASSERT_TRUE(manager->getIsReady(true));

    Record received;
    EXPECT_EQ(manager->receiveFormControl(reinterpret_cast<MQData*>(&received)), 284);
    EXPECT_EQ(received, old);
    EXPECT_EQ(manager->receiveFormService(reinterpret_cast<MQData*>(&received)), 284);
    EXPECT_EQ(received, old);
}

TEST_F(MQueueOpen, QueuesLeftBehindKeepTheirAttributes)
{
    leaveQueueBehind("/fwupdateservice_usb", 3, 284, nullptr);
    leaveQueueBehind("/fwupdatecontrol_usb", 4, 300, nullptr);

    ASSERT_TRUE(manager->getIsReady(true));

    const Client client;
    EXPECT_EQ(attributesOf(client.commands()).mq_maxmsg, 3);
    EXPECT_EQ(attributesOf(client.replies()).mq_msgsize, 300);
}

TEST_F(MQueueOpen, UserOpensWhatIsThereForItsOwnDirections)
{
    leaveQueueBehind("/fwupdateservice_usb", 10, 284, nullptr);
    leaveQueueBehind("/fwupdatecontrol_usb", 10, 284, nullptr);
    clear();

    EXPECT_TRUE(manager->getIsReady(false));

    expectSteps({Call("mq_open(\"/fwupdateservice_usb\", O_WRONLY) = ok"),
                 Call("mq_open(\"/fwupdatecontrol_usb\", O_RDONLY) = ok")});
}

TEST_F(MQueueOpen, UserMakesNoQueue)
{
    EXPECT_FALSE(manager->getIsReady(false));

    expectSteps({Call("mq_open(\"/fwupdateservice_usb\", O_WRONLY) = failed")});
    EXPECT_FALSE(queueIsThere(kServiceQueue));
}

TEST_F(MQueueOpen, UserNeedsBothQueues)
{
    leaveQueueBehind("/fwupdateservice_usb", 10, 284, nullptr);
    clear();

    EXPECT_FALSE(manager->getIsReady(false));

    expectSteps({Call("mq_open(\"/fwupdateservice_usb\", O_WRONLY) = ok"),
                 Call("mq_open(\"/fwupdatecontrol_usb\", O_RDONLY) = failed")});
    EXPECT_FALSE(queueIsThere(kControlQueue));
}
