#include <cerrno>
#include <chrono>
#include <cstring>
#include <future>

#include "fakes/timeline.h"
#include "fw-update-mqueue-manager.h"
#include "quillon-service-client.h"

using namespace quillon::fakes;
using namespace quillon::test;

namespace {

/// Every byte different from its neighbours.
Record pattern(unsigned char seed)
{
    Record record;
    for (std::size_t i = 0; i < kRecordSize; ++i) {
        record.bytes[i] = static_cast<unsigned char>(seed + 7 * i);
    }
    return record;
}

MQData* asData(Record& record)
{
    return reinterpret_cast<MQData*>(&record);
}

class MQueueRecords : public ::testing::Test
{
protected:
    MQueueRecords() { recordCalls({"mq_send", "mq_receive"}); }
    ~MQueueRecords() override { EXPECT_EQ(mismatches(), ""); }

    OpenQueues queues;
    Client client;
    FWUpdateMQManager* manager = FWUpdateMQManager::getInstance();
    Record record = pattern(3);
    Record received;
};

}  // namespace

TEST(MQueueRecord, HasItsFieldsWhereClientsExpectThem)
{
    MQData data{};
    std::memset(&data, 0, sizeof(data));
    data.command = 0x01020304;
    data.result = -2;
    data.kind = 8;
    std::memcpy(data.path, "path", 5);
    data.value = 77;
    data.reserved[11] = 9;

    Record record;
    record.set(0, 0x01020304);
    record.set(4, -2);
    record.set(8, 8);
    std::memcpy(&record.bytes[12], "path", 4);
    record.set(268, 77);
    record.bytes[283] = 9;
    EXPECT_EQ(sizeof(MQData), kRecordSize);
    EXPECT_EQ(std::memcmp(&data, record.bytes.data(), kRecordSize), 0);
}

TEST_F(MQueueRecords, IntoTheServiceTravelWhole)
{
    EXPECT_EQ(manager->sendToService(asData(record)), 0);

    EXPECT_EQ(client.commands().receive(), record);
    EXPECT_EQ(client.replies().waiting(), 0);
    expectTexts(callTexts(), {"mq_send(\"/fwupdateservice_usb\", 284, 0) = 0"});
}

TEST_F(MQueueRecords, OutOfTheServiceTravelWhole)
{
    EXPECT_EQ(manager->sendToControl(asData(record)), 0);

    EXPECT_EQ(client.replies().receive(), record);
    EXPECT_EQ(client.commands().waiting(), 0);
    expectTexts(callTexts(), {"mq_send(\"/fwupdatecontrol_usb\", 284, 0) = 0"});
}

TEST_F(MQueueRecords, FromTheClientAreTakenOutOfTheServiceQueue)
{
    client.send(record);

    EXPECT_EQ(manager->receiveFormControl(asData(received)), 284);

    EXPECT_EQ(received, record);
    expectTexts(callTexts(), {"mq_receive(\"/fwupdateservice_usb\", 284, null) = 284"});
}

TEST_F(MQueueRecords, FromTheServiceAreTakenOutOfTheControlQueue)
{
    client.replies().send(record.bytes.data(), kRecordSize);

    EXPECT_EQ(manager->receiveFormService(asData(received)), 284);

    EXPECT_EQ(received, record);
    expectTexts(callTexts(), {"mq_receive(\"/fwupdatecontrol_usb\", 284, null) = 284"});
}

TEST_F(MQueueRecords, TravelOverAnyQueue)
{
    EXPECT_EQ(manager->send(client.replies().descriptor(), asData(record)), 0);
    EXPECT_EQ(manager->receive(client.replies().descriptor(), asData(received)), 284);

    EXPECT_EQ(received, record);
    expectTexts(callTexts(), {"mq_send(\"/fwupdatecontrol_usb\", 284, 0) = 0",
                              "mq_receive(\"/fwupdatecontrol_usb\", 284, null) = 284"});
}

TEST_F(MQueueRecords, ArriveInTheOrderInWhichTheyWereSent)
{
    for (unsigned char seed = 0; seed < 10; ++seed) {
        Record next = pattern(seed);
        ASSERT_EQ(manager->sendToService(asData(next)), 0);
    }

    for (unsigned char seed = 0; seed < 10; ++seed) {
        ASSERT_EQ(manager->receiveFormControl(asData(received)), 284);
        EXPECT_EQ(received, pattern(seed));
    }
}

TEST_F(MQueueRecords, ShorterThanARecordAreTakenWithTheirOwnLength)
{
    client.commands().send(record.bytes.data(), 5);

    EXPECT_EQ(manager->receiveFormControl(asData(received)), 5);

    EXPECT_EQ(std::memcmp(received.bytes.data(), record.bytes.data(), 5), 0);
    EXPECT_EQ(received.bytes[5], 0);
}

TEST_F(MQueueRecords, FullQueueBlocksTheSenderUntilOneIsTaken)
{
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(manager->sendToControl(asData(record)), 0);
    }

    auto sender =
        std::async(std::launch::async, [this] { return manager->sendToControl(asData(record)); });
    EXPECT_EQ(sender.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    EXPECT_EQ(client.replies().waiting(), 10);
    client.replies().receive();

    EXPECT_EQ(sender.get(), 0);
    EXPECT_EQ(client.replies().waiting(), 10);
}

TEST_F(MQueueRecords, ReceiverWaitsForTheNextOne)
{
    auto receiver = std::async(std::launch::async,
                               [this] { return manager->receiveFormControl(asData(received)); });
    EXPECT_EQ(receiver.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);

    client.send(record);

    EXPECT_EQ(receiver.get(), 284);
    EXPECT_EQ(received, record);
}

TEST_F(MQueueRecords, FailuresAreHandedToTheCallerAndNotKept)
{
    failCall("mq_send", EAGAIN);
    failCall("mq_receive", EINTR);

    EXPECT_EQ(manager->sendToControl(asData(record)), -1);
    EXPECT_EQ(manager->receiveFormControl(asData(received)), -1);

    EXPECT_EQ(logTexts().size(), 0U);
    EXPECT_EQ(manager->sendToService(asData(record)), 0);
    EXPECT_EQ(manager->receiveFormControl(asData(received)), 284);
}

TEST_F(MQueueRecords, ClosedQueueIsAFailureOfBothDirections)
{
    EXPECT_EQ(manager->send(-1, asData(record)), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(manager->receive(-1, asData(record)), -1);
    EXPECT_EQ(errno, EBADF);
}
