// Everybody may write into the queues. What stands in a reply is not to be trusted further than
// that.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quillon/client.h>

#include <atomic>
#include <limits>

#include "unit/client/client-matchers.h"
#include "unit/client/fake-service.h"

using namespace quillon;
using namespace std::chrono_literals;
using testing::Pair;

namespace {

ClientOptions impatient()
{
    ClientOptions options;
    options.estimateTimeout = options.startTimeout = options.replyTimeout = 300ms;
    return options;
}

/// Sends replies from several threads, so that the queue is never empty.
class Flood
{
public:
    explicit Flood(const std::function<void()>& sendOne)
    {
        for (int i = 0; i < 8; ++i) {
            threads_.emplace_back([this, sendOne] {
                while (!stop_) {
                    sendOne();
                }
            });
        }
    }
    Flood(const Flood&) = delete;
    Flood& operator=(const Flood&) = delete;

    /// @param service  sends nothing any more afterwards
    void end(FakeService& service)
    {
        stop_ = true;
        service.stopSending();
        for (std::thread& thread : threads_) {
            thread.join();
        }
    }

private:
    std::atomic<bool> stop_{false};
    std::vector<std::thread> threads_;
};

}  // namespace

class ClientForged : public testing::Test
{
protected:
    /// The service itself keeps silent.
    void SetUp() override
    {
        for (const int command : {MQ_COMMAND_PROGRESS, MQ_COMMAND_TIME, MQ_COMMAND_START}) {
            service.on(command, [](const MQData&) {});
        }
        service.serve();
        ASSERT_THAT(client.connect(), Succeeded());
    }

    Error askDuring(const std::function<void()>& sendOne)
    {
        Flood flood(sendOne);
        Error error = client.progress().error;
        flood.end(service);
        return error;
    }

    FakeService service;
    Client client{impatient()};
};

TEST_F(ClientForged, RepliesWithoutEndDoNotHoldItUpLongerThanItsTimeOut)
{
    EXPECT_TRUE(askDuring([this] { service.reply(MQ_RESULT_ACCEPTED); }));
}

TEST_F(ClientForged, MalformedRepliesWithoutEndDoNotHoldItUpLongerThanItsTimeOut)
{
    EXPECT_TRUE(askDuring([this] { service.replyRaw("x", 1); }));
}

TEST(ClientForgedNumbers, ArePutWhereTheyBelong)
{
    constexpr int kLargest = std::numeric_limits<int>::max();
    constexpr int kSmallest = std::numeric_limits<int>::min();
    FakeService service;
    service.answerBeforeStart({{MQ_RESULT_RUNNING, kLargest},
                               {MQ_RESULT_RUNNING, kSmallest},
                               {MQ_RESULT_DONE, kSmallest},
                               {MQ_RESULT_FAILED, kLargest}});
    service.serve();
    Client client;
    ASSERT_THAT(client.connect(), Succeeded());

    std::vector<std::pair<int, int>> told;
    for (int i = 0; i < 4; ++i) {
        const Progress progress = client.progress().value;
        told.emplace_back(progress.state, progress.percent);
    }
    EXPECT_THAT(told,
                testing::ElementsAre(Pair(Progress::kRunning, 99), Pair(Progress::kRunning, 0),
                                     Pair(Progress::kDone, 100), Pair(Progress::kFailed, 99)));
}
