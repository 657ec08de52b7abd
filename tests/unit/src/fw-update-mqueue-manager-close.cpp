#include <cstdlib>

#include "fakes/timeline.h"
#include "fw-update-mqueue-manager.h"
#include "quillon-service-client.h"

using namespace quillon::fakes;
using namespace quillon::test;

namespace {

bool queuesAreThere()
{
    return queueIsThere("/fwupdateservice_usb") && queueIsThere("/fwupdatecontrol_usb");
}

void makeQueues()
{
    for (const char* name : {"/fwupdateservice_usb", "/fwupdatecontrol_usb"}) {
        mq_attr attributes{};
        attributes.mq_maxmsg = 10;
        attributes.mq_msgsize = kRecordSize;
        const mqd_t queue = mq_open(name, O_RDWR | O_CREAT, 0666, &attributes);
        ASSERT_NE(queue, -1);
        mq_close(queue);
    }
}

class MQueueClose : public ::testing::Test
{
protected:
    MQueueClose()
    {
        manager->setMQName("usb");
        recordCalls({"mq_close", "mq_unlink"});
    }
    ~MQueueClose() override { EXPECT_EQ(mismatches(), ""); }

    FWUpdateMQManager* manager = FWUpdateMQManager::getInstance();
};

}  // namespace

TEST_F(MQueueClose, OwnerClosesAndRemovesOneQueueAfterTheOther)
{
    ASSERT_TRUE(manager->getIsReady(true));
    clear();

    EXPECT_TRUE(manager->onDestroy());

    expectSteps({Call("mq_close(\"/fwupdateservice_usb\") = 0"),
                 Call("mq_unlink(\"/fwupdateservice_usb\") = 0"),
                 Call("mq_close(\"/fwupdatecontrol_usb\") = 0"),
                 Call("mq_unlink(\"/fwupdatecontrol_usb\") = 0")});
    EXPECT_FALSE(queueIsThere("/fwupdateservice_usb"));
    EXPECT_FALSE(queueIsThere("/fwupdatecontrol_usb"));
}

TEST_F(MQueueClose, UserClosesTheQueuesAndLeavesThemToTheOwner)
{
    makeQueues();
    ASSERT_TRUE(manager->getIsReady(false));
    clear();

    EXPECT_TRUE(manager->onDestroy());

    expectSteps({Call("mq_close(\"/fwupdateservice_usb\") = 0"),
                 Call("mq_close(\"/fwupdatecontrol_usb\") = 0")});
    EXPECT_TRUE(queuesAreThere());
}

TEST_F(MQueueClose, LastAnswerToWhoOwnsThemDecides)
{
    ASSERT_TRUE(manager->getIsReady(true));
    ASSERT_TRUE(manager->getIsReady(false));

    manager->onDestroy();

    EXPECT_TRUE(queuesAreThere());
}

TEST_F(MQueueClose, QueuesThatWereNeverOpenedAreLeftAlone)
{
    makeQueues();
    clear();

    EXPECT_TRUE(manager->onDestroy());

    expectSteps({});
    EXPECT_TRUE(queuesAreThere());
}

TEST_F(MQueueClose, QueueThatCouldNotBeOpenedIsLeftAlone)
{
    failCall("mq_open", EMFILE, 1, 1);
    ASSERT_FALSE(manager->getIsReady(true));
    clear();

    EXPECT_TRUE(manager->onDestroy());

    expectSteps({Call("mq_close(\"/fwupdateservice_usb\") = 0"),
                 Call("mq_unlink(\"/fwupdateservice_usb\") = 0")});
}

TEST_F(MQueueClose, NamesAreRemovedEvenWhenClosingFails)
{
    ASSERT_TRUE(manager->getIsReady(true));
    failCall("mq_close", EIO, 2);

    EXPECT_TRUE(manager->onDestroy());

    EXPECT_FALSE(queueIsThere("/fwupdateservice_usb"));
    EXPECT_FALSE(queueIsThere("/fwupdatecontrol_usb"));
}

TEST_F(MQueueClose, HappensByItselfWhenTheProcessExits)
{
    EXPECT_EXIT(
        {
            manager->getIsReady(true);
            std::exit(queuesAreThere() ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");

    EXPECT_FALSE(queueIsThere("/fwupdateservice_usb"));
    EXPECT_FALSE(queueIsThere("/fwupdatecontrol_usb"));
}

TEST_F(MQueueClose, AChildThatExitsLeavesTheQueuesToTheProcessThatMadeThem)
{
    ASSERT_TRUE(manager->getIsReady(true));

    EXPECT_EXIT(std::exit(0), ::testing::ExitedWithCode(0), "");

    EXPECT_TRUE(queuesAreThere());
    manager->onDestroy();
    EXPECT_FALSE(queueIsThere("/fwupdateservice_usb"));
}
