#include <unistd.h>

#include <array>
#include <atomic>
#include <cstring>
#include <random>
#include <thread>

#include "system/system-test.h"

namespace quillon::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

using RecordBytes = std::array<unsigned char, sizeof(MQData)>;

/// What a queue takes: up to 284 bytes, not all of which need to be there.
struct Message
{
    RecordBytes bytes{};
    std::size_t size = sizeof(MQData);
};

/// Takes every reply, so that the daemon never has to wait for a reader.
class ReplyReader
{
public:
    explicit ReplyReader(Channel& channel) : thread_([this, &channel] { read(channel); }) {}
    ~ReplyReader() { stop(); }
    ReplyReader(const ReplyReader&) = delete;
    ReplyReader& operator=(const ReplyReader&) = delete;

    void stop()
    {
        stopped_ = true;
        if (thread_.joinable()) {
            thread_.join();
        }
    }

    int replies() const { return replies_; }
    int strangeReplies() const { return strange_; }

private:
    void read(Channel& channel)
    {
        while (!stopped_) {
            const auto reply = channel.receive(milliseconds(50));
            if (!reply) {
                continue;
            }
            ++replies_;
            if (reply->command != MQ_COMMAND_REPLY || reply->kind != FW_MQ_KIND) {
                ++strange_;
            }
        }
    }

    std::atomic<bool> stopped_{false};
    std::atomic<int> replies_{0};
    std::atomic<int> strange_{0};
    std::thread thread_;
};

/// Makes one hostile message after another; the same ones for the same seed.
class HostileClient
{
public:
    explicit HostileClient(unsigned int seed) : random_(seed) {}

    Message next()
    {
        Message message;
        switch (upTo(4)) {
            case 0:
                fillWithNoise(message.bytes);
                break;
            case 1:
                message.bytes.fill(static_cast<unsigned char>(upTo(256)));
                break;
            default:
                break;
        }
        setCommand(message.bytes, someCommand());
        if (upTo(2) == 0) {
            setPath(message.bytes, somePath());
        }
        if (upTo(3) == 0) {
            message.size = upTo(sizeof(MQData) + 1);
        }
        defuse(message);
        return message;
    }

private:
    std::size_t upTo(std::size_t limit) { return random_() % limit; }

    void fillWithNoise(RecordBytes& bytes)
    {
        for (unsigned char& byte : bytes) {
            byte = static_cast<unsigned char>(random_() & 0xFFU);
        }
    }

    int32_t someCommand()
    {
        constexpr int32_t kCommands[] = {0, 1, 2, 3,  5,         6,         7,   8,         8,
                                         8, 6, 9, -1, INT32_MIN, INT32_MAX, 256, 0x01000000};
        return upTo(20) == 0 ? static_cast<int32_t>(random_())
                             : kCommands[upTo(std::size(kCommands))];
    }

    std::string somePath()
    {
        const std::string good = kStick;
        const std::string paths[] = {
            good + std::string(FW_MQ_PATH_SIZE - 1 - good.size(), '/'),
            good,
            "",
            "/",
            "//",
            "/dev/",
            "/dev/fd/",
            "/proc/self/",
            "/proc/self/fd/",
            "/sys/",
            "/nowhere/",
            "../../../../../../../../",
            "%s%n%s%n%d%x/",
            "\n\r\x1b[2J/",
            std::string(FW_MQ_PATH_SIZE, 'u'),  // unterminated, up to the record's value
            std::string(FW_MQ_PATH_SIZE, '/'),
            std::string(FW_MQ_PATH_SIZE, '\xFF'),
        };
        return paths[upTo(std::size(paths))];
    }

    static void setCommand(RecordBytes& bytes, int32_t command)
    {
        std::memcpy(bytes.data(), &command, sizeof command);
    }

    static void setPath(RecordBytes& bytes, const std::string& path)
    {
        unsigned char* const begin = bytes.data() + offsetof(MQData, path);
        std::memcpy(begin, path.data(), path.size());
        if (path.size() < FW_MQ_PATH_SIZE) {
            begin[path.size()] = 0;
        }
    }

    /// A stop command would end the test early; what is missing of a short record counts as zero.
    static void defuse(Message& message)
    {
        int32_t command = 0;
        std::memcpy(&command, message.bytes.data(), std::min(message.size, sizeof command));
        if (command == MQ_COMMAND_STOP) {
            setCommand(message.bytes, MQ_COMMAND_PROGRESS);
        }
    }

    std::mt19937 random_;
};

class HostileRecords : public SystemTest
{
protected:
    /// That the daemon still does what it is for.
    void expectItStillServes()
    {
        waitForRun();
        const std::string padded = kStick + std::string(127 - std::strlen(kStick), '/');
        const auto reply = channel->setPath(padded);
        ASSERT_TRUE(reply);
        EXPECT_EQ(reply->result, MQ_RESULT_ACCEPTED);
        putImagesForAll("9.0");
        EXPECT_EQ(update(), MQ_RESULT_DONE);
        expectAllUpdatedTo("9.0");
    }
};

TEST_F(HostileRecords, TenThousandOfThemLeaveTheDaemonServingAndStoppingInOrder)
{
    putImagesForAll("2.0");
    startDaemon();
    const std::size_t threads = daemon.threads();

    {
        ReplyReader reader(*channel);
        HostileClient client(20240229);
        for (int i = 0; i < 10000; ++i) {
            const Message message = client.next();
            ASSERT_TRUE(channel->sendBytes(message.bytes.data(), message.size))
                << "record " << i << ": " << std::strerror(errno)
                << "; running: " << daemon.isRunning();
        }
        ASSERT_TRUE(eventually([&] { return channel->waitingCommands() == 0; }, seconds(60)));
        reader.stop();
        EXPECT_GT(reader.replies(), 1000);
        EXPECT_EQ(reader.strangeReplies(), 0);
    }
    // The last command may still be at work; its reply would be taken for another's. It has been
    // sent when the daemon takes one more, which has none.
    ASSERT_TRUE(channel->send(Channel::record(0)));
    ASSERT_TRUE(eventually([&] { return channel->waitingCommands() == 0; }, seconds(60)));
    channel->drain();

    expectItStillServes();
    EXPECT_TRUE(eventually([&] { return daemon.threads() == threads; }));
    EXPECT_EQ(daemon.stop(), 0);
}

TEST_F(HostileRecords, RecordsOfEverySizeAreTakenAsIfTheirMissingBytesWereZero)
{
    startDaemon();
    RecordBytes bytes;
    for (std::size_t size = 0; size <= sizeof(MQData); ++size) {
        bytes.fill('x');
        const int32_t command = MQ_COMMAND_PATH;
        std::memcpy(bytes.data(), &command, sizeof command);
        ASSERT_TRUE(channel->sendBytes(bytes.data(), size));
        if (size == 0) {
            continue;  // command 0 has no reply; from one byte on the number is complete
        }
        const auto reply = channel->receive();
        ASSERT_TRUE(reply) << size;
        EXPECT_EQ(reply->result, MQ_RESULT_ACCEPTED) << size;
    }
    EXPECT_EQ(channel->ask(MQ_COMMAND_PROGRESS)->result, MQ_RESULT_NOT_RUNNING);
}

TEST_F(HostileRecords, UnhandledCommandsHaveNoReply)
{
    startDaemon();
    for (const int32_t command : {0, 2, 3, 5, 9, -1, INT32_MIN, INT32_MAX}) {
        ASSERT_TRUE(channel->send(Channel::record(command)));
    }
    EXPECT_EQ(channel->ask(MQ_COMMAND_PROGRESS)->result, MQ_RESULT_NOT_RUNNING);
    EXPECT_EQ(channel->waitingReplies(), 0);
    EXPECT_EQ(daemon.logLinesWith("> default").size(), 8U);
}

TEST_F(HostileRecords, AClientThatReadsNoReplyHoldsTheDaemonUpUntilSomebodyDoes)
{
    putImagesForAll("2.0");
    startDaemon();
    constexpr int kMoreThanTheQueueHolds = FW_MQ_MAX_MESSAGES + 3;
    for (int i = 0; i < kMoreThanTheQueueHolds; ++i) {
        ASSERT_TRUE(channel->send(Channel::record(MQ_COMMAND_PROGRESS)));
    }
    ASSERT_TRUE(eventually([&] { return channel->waitingReplies() == FW_MQ_MAX_MESSAGES; }));
    ASSERT_TRUE(eventually([&] { return channel->waitingCommands() <= 2; }));
    usleep(100000);
    EXPECT_EQ(channel->waitingCommands(), 2) << "one waits to be answered, two to be taken";

    for (int i = 0; i < kMoreThanTheQueueHolds; ++i) {
        const auto reply = channel->receive();
        ASSERT_TRUE(reply);
        EXPECT_EQ(reply->result, MQ_RESULT_NOT_RUNNING);
    }
    EXPECT_EQ(update(), MQ_RESULT_DONE);
    expectAllUpdatedTo("2.0");
}

TEST_F(HostileRecords, AFloodOfStartsRunsOneUpdate)
{
    putImagesForAll("2.0");
    for (const std::string& name : allModules()) {
        setModule(name, 100000, 5);
    }
    startDaemon();
    int accepted = 0;
    for (int i = 0; i < 50; ++i) {
        const auto reply = channel->ask(MQ_COMMAND_START);
        ASSERT_TRUE(reply);
        accepted += reply->result == MQ_RESULT_ACCEPTED ? 1 : 0;
    }
    EXPECT_EQ(accepted, 1);
    EXPECT_EQ(waitForRun().result, MQ_RESULT_DONE);
}

}  // namespace
}  // namespace quillon::test
