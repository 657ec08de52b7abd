#include "helpers/lifecycle/own-queues.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <mqueue.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <thread>
#include <vector>

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

struct Sent
{
    int32_t command;
    int32_t value;  ///< tells it from others
    unsigned int priority;

    bool operator==(const Sent& other) const
    {
        return command == other.command && value == other.value && priority == other.priority;
    }
};

void send(mqd_t queue, const Sent& sent)
{
    MQData record = {};
    record.command = sent.command;
    record.value = sent.value;
    ASSERT_EQ(mq_send(queue, reinterpret_cast<const char*>(&record), sizeof record, sent.priority),
              0);
}

/// Takes out what is in a queue that does not wait.
std::vector<Sent> receiveAll(mqd_t queue)
{
    std::vector<Sent> all;
    MQData record = {};
    unsigned int priority = 0;
    while (mq_receive(queue, reinterpret_cast<char*>(&record), sizeof record, &priority) >= 0) {
        all.push_back({record.command, record.value, priority});
    }
    return all;
}

TEST(OwnQueues, LoseTheStopCommandsOfBeforeAndKeepTheOthersInTheirOrder)
{
    const mqd_t queue = make("/fwupdateservice_usb", 10, 284);
    send(queue, {MQ_COMMAND_STOP, 0, 0});
    send(queue, {MQ_COMMAND_PATH, 1, 0});
    send(queue, {MQ_COMMAND_STOP, 2, 5});
    send(queue, {MQ_COMMAND_START, 3, 0});
    send(queue, {MQ_COMMAND_TIME, 4, 5});
    ASSERT_EQ(mq_send(queue, "\4\0\0", 4, 0), 0) << "a stop as well: zeros follow";

    provideOwnQueues();

    EXPECT_EQ(receiveAll(queue),
              (std::vector<Sent>{
                  {MQ_COMMAND_TIME, 4, 5}, {MQ_COMMAND_PATH, 1, 0}, {MQ_COMMAND_START, 3, 0}}));
}

TEST(OwnQueues, KeepShortRecordsAsTheyAre)
{
    const mqd_t queue = make("/fwupdateservice_usb", 10, 284);
    ASSERT_EQ(mq_send(queue, "", 0, 0), 0);
    ASSERT_EQ(mq_send(queue, "\6", 1, 0), 0);

    provideOwnQueues();

    MQData record = {};
    const auto receive = [&] {
        return mq_receive(queue, reinterpret_cast<char*>(&record), sizeof record, nullptr);
    };
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(receive(), 1);
    EXPECT_EQ(record.command, MQ_COMMAND_PROGRESS);
    EXPECT_EQ(receive(), -1);
}

TEST(OwnQueues, KeepEveryReply)
{
    const mqd_t queue = make("/fwupdatecontrol_usb", 10, 284);
    send(queue, {MQ_COMMAND_STOP, 0, 0});

    provideOwnQueues();

    expectUsable("/fwupdatecontrol_usb", 1);
}

TEST(OwnQueues, LoseNoCommandOfAClientThatWaitedForRoom)
{
    const mqd_t queue = make("/fwupdateservice_usb", 10, 284);
    send(queue, {MQ_COMMAND_STOP, 0, 0});
    for (int i = 1; i < 10; ++i) {
        send(queue, {MQ_COMMAND_TIME, i, 0});
    }
    std::thread client([] {
        send(mq_open("/fwupdateservice_usb", O_WRONLY), {MQ_COMMAND_TIME, 10, 0});
    });

    provideOwnQueues();
    std::vector<Sent> all = receiveAll(queue);
    client.join();
    for (const Sent& late : receiveAll(queue)) {
        all.push_back(late);
    }

    std::set<int32_t> values;
    for (const Sent& sent : all) {
        EXPECT_EQ(sent.command, MQ_COMMAND_TIME);
        values.insert(sent.value);
    }
    EXPECT_EQ(values, (std::set<int32_t>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
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
