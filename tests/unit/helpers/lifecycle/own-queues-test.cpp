#include "helpers/lifecycle/own-queues.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <mqueue.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fw-update-mqdata.h"

namespace {

using namespace quillon::unit;

mqd_t make(const char* name, long records, long size)
{
    mq_attr attributes = {};
    attributes.mq_maxmsg = records;
    attributes.mq_msgsize = size;
    const mqd_t queue = mq_open(name, O_RDWR | O_CREAT | O_EXCL | O_NONBLOCK, 0600, &attributes);
    EXPECT_EQ(fchmod(queue, 0666), 0);  // whatever the mask
    return queue;
}

void provideOwnQueues()
{
    provideQueues(openQueues(geteuid(), getegid()));
}

void expectUsable(const char* name, long recordsInIt)
{
    const mqd_t queue = mq_open(name, O_RDWR);
    struct stat status = {};
    mq_attr attributes = {};
    ASSERT_EQ(mq_getattr(queue, &attributes), 0) << name;
    ASSERT_EQ(fstat(queue, &status), 0);
    EXPECT_EQ(attributes.mq_msgsize, 284);
    EXPECT_EQ(attributes.mq_maxmsg, 10);
    EXPECT_EQ(attributes.mq_curmsgs, recordsInIt);
    EXPECT_EQ(status.st_uid, geteuid());
    mq_close(queue);
}

TEST(OwnQueues, AreMadeForEverybodyWhateverTheMask)
{
    umask(0077);

    provideOwnQueues();

    expectUsable("/fwupdateservice_usb", 0);
    expectUsable("/fwupdatecontrol_usb", 0);
    struct stat status = {};
    const mqd_t queue = mq_open("/fwupdateservice_usb", O_RDWR);
    ASSERT_EQ(fstat(queue, &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0666U);
}

TEST(OwnQueues, KeepTheCommandsThatOutlivedACrash)
{
    const mqd_t queue = make("/fwupdateservice_usb", 10, 284);
    const char record[284] = {};
    ASSERT_EQ(mq_send(queue, record, sizeof record, 0), 0);

    provideOwnQueues();

    expectUsable("/fwupdateservice_usb", 1);
}

TEST(OwnQueues, ReplaceThoseOfAnotherShape)
{
    make("/fwupdateservice_usb", 1, 284);
    make("/fwupdatecontrol_usb", 10, 16);

    provideOwnQueues();

    expectUsable("/fwupdateservice_usb", 0);
    expectUsable("/fwupdatecontrol_usb", 0);
}

TEST(OwnQueues, ReplaceThoseThatAreNotOpenToEverybody)
{
    const mqd_t queue = make("/fwupdateservice_usb", 10, 284);
    const char record[284] = {};
    ASSERT_EQ(mq_send(queue, record, sizeof record, 0), 0);
    ASSERT_EQ(fchmod(queue, 0660), 0);

    provideOwnQueues();

    expectUsable("/fwupdateservice_usb", 0);
}

TEST(OwnQueues, ReplaceThoseOfAnotherUser)
{
    const mqd_t queue = make("/fwupdateservice_usb", 10, 284);
    const char record[284] = {};
    ASSERT_EQ(mq_send(queue, record, sizeof record, 0), 0);
    if (fchown(queue, 1, 1) != 0) {
        GTEST_SKIP() << "this user may not give a queue away";
    }

    provideOwnQueues();

    expectUsable("/fwupdateservice_usb", 0);
}

TEST(OwnQueues, OfAGroupAreRootsAndClosedToOthers)
{
    make("/fwupdateservice_usb", 10, 284);

    provideQueues(groupQueues(getegid()));

    for (const char* name : {"/fwupdateservice_usb", "/fwupdatecontrol_usb"}) {
        expectUsable(name, 0);
        struct stat status = {};
        ASSERT_EQ(fstat(mq_open(name, O_RDWR), &status), 0);
        EXPECT_EQ(status.st_uid, 0U);
        EXPECT_EQ(status.st_gid, getegid());
        EXPECT_EQ(status.st_mode & 0777U, 0660U);
    }
}

TEST(OwnQueues, AreClosedWhenAGroupIsChosenAndOpenAgainWithoutIt)
{
    provideOwnQueues();
    const mqd_t open = mq_open("/fwupdateservice_usb", O_RDWR);

    provideQueues(groupQueues(getegid()));
    const char record[284] = {};
    ASSERT_EQ(mq_send(open, record, sizeof record, 0), 0);
    expectUsable("/fwupdateservice_usb", 0);  // who had it open before cannot send to this one

    provideOwnQueues();
    struct stat status = {};
    ASSERT_EQ(fstat(mq_open("/fwupdateservice_usb", O_RDWR), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0666U);
}

TEST(OwnQueues, OfAGroupAreTakenAwayAndOthersStay)
{
    provideQueues(groupQueues(getegid()));
    removeGroupQueues();
    EXPECT_EQ(mq_open("/fwupdateservice_usb", O_RDONLY), -1);
    EXPECT_EQ(mq_open("/fwupdatecontrol_usb", O_RDONLY), -1);

    provideOwnQueues();
    removeGroupQueues();
    expectUsable("/fwupdateservice_usb", 0);
    expectUsable("/fwupdatecontrol_usb", 0);
}

TEST(OwnQueues, AreFullOnlyWithAllTheRepliesThatFit)
{
    EXPECT_FALSE(isReplyQueueFull());
    provideOwnQueues();
    const mqd_t queue = mq_open("/fwupdatecontrol_usb", O_RDWR | O_NONBLOCK);
    const char record[284] = {};
    for (int i = 0; i < 10; ++i) {
        EXPECT_FALSE(isReplyQueueFull());
        ASSERT_EQ(mq_send(queue, record, sizeof record, 0), 0);
    }
    EXPECT_TRUE(isReplyQueueFull());

    emptyReplyQueue();

    expectUsable("/fwupdatecontrol_usb", 0);
}

}  // namespace
