#include <ctime>
#include <string>

#include "quillon-service-control.h"

using namespace quillon::fakes;
using namespace quillon::test;

namespace {

constexpr timespec kStart = {1000, 0};

Step Status(int seconds, int percent, int status)
{
    return LogFrom("firmware_control_task", INFO,
                   "time : " + std::to_string(seconds) +
                       " sec percent : " + std::to_string(percent) +
                       " progress_status : " + std::to_string(status) + "\n");
}

timespec after(const timespec& start, long seconds)
{
    return {start.tv_sec + seconds, start.tv_nsec};
}

/// An update that is held up in its module, under a clock of the test.
class Progress : public ControlTest
{
protected:
    void startUpdate(int expectedSeconds, const timespec& at = kStart)
    {
        addModule("alpha", waitingAt(gate, expectedSeconds));
        startWithStick();
        setMonotonicTime(at);
        ASSERT_EQ(client.ask(1), reply(0));
        ASSERT_TRUE(gate->isReached());
        clear();
    }

    Record askAt(const timespec& now)
    {
        setMonotonicTime(now);
        return client.ask(6);
    }

    std::shared_ptr<Gate> gate = makeGate();
};

struct Wrap
{
    const char* name;
    long startSeconds;
    long elapsed;
    int expectedSeconds;
    int percent;
};

std::ostream& operator<<(std::ostream& out, const Wrap& wrap)
{
    return out << wrap.name;
}

class ProgressArithmetic : public Progress, public ::testing::WithParamInterface<Wrap>
{
};

}  // namespace

TEST_F(Progress, IsHalfWayAfterHalfTheExpectedTime)
{
    startUpdate(60);

    EXPECT_EQ(askAt(after(kStart, 30)), reply(1, 50));

    expectSteps({Status(30, 50, 0)});
}

TEST_F(Progress, NeverExceeds99WhileTheUpdateRuns)
{
    startUpdate(60);

    EXPECT_EQ(askAt(after(kStart, 59)), reply(1, 98));
    EXPECT_EQ(askAt(after(kStart, 60)), reply(1, 99));
    EXPECT_EQ(askAt(after(kStart, 70)), reply(1, 99));

    expectSteps({Status(59, 98, 0), Status(60, 99, 0), Status(70, 99, 0)});
}

TEST_F(Progress, CountsWholeSeconds)
{
    const timespec start = {1000, 999999999};
    startUpdate(10, start);

    EXPECT_EQ(askAt({1001, 0}), reply(1, 0));
    EXPECT_EQ(askAt({1001, 999998000}), reply(1, 0));
    EXPECT_EQ(askAt({1001, 999999000}), reply(1, 10));

    expectSteps({Status(0, 0, 0), Status(0, 0, 0), Status(1, 10, 0)});
}

TEST_F(Progress, IsRightBeyondTheSecondsOf32Bits)
{
    const timespec start = {time_t{1} << 33, 0};
    startUpdate(60, start);

    EXPECT_EQ(askAt(after(start, 30)), reply(1, 50));
}

TEST_F(Progress, RoundsThePercentageDown)
{
    startUpdate(3);

    EXPECT_EQ(askAt(after(kStart, 1)), reply(1, 33));
    EXPECT_EQ(askAt(after(kStart, 2)), reply(1, 66));
}

TEST_F(Progress, OfADoneUpdateIs100WhateverTheTime)
{
    startUpdate(60);
    setMonotonicTime(after(kStart, 6));
    gate->open();

    EXPECT_EQ(outcome(), reply(2, 100));

    expectLastSteps({Status(6, 10, 100)});
    EXPECT_EQ(client.ask(6), reply(-5));
}

TEST_F(Progress, OfAFailedUpdateStaysWhereTheTimeStood)
{
    addModule("alpha", Module().needsUpdate().takesSeconds(60).throwing("doUpdate_decryption"));
    startWithStick();
    setMonotonicTime(kStart);
    ASSERT_EQ(client.ask(1), reply(0));
    ASSERT_TRUE(waitForLine("Error: doUpdateUSB fail"));
    clear();

    EXPECT_EQ(askAt(after(kStart, 15)), reply(-4, 25));

    expectSteps({Status(15, 25, -1)});
    EXPECT_EQ(client.ask(6), reply(-5));
}

TEST_F(Progress, IsZeroWithoutAnExpectedTime)
{
    startUpdate(0);

    EXPECT_EQ(askAt(after(kStart, 30)), reply(1, 0));

    expectSteps({Status(30, 0, 0)});
    gate->open();
    EXPECT_EQ(outcome(), reply(2, 100));
}

TEST_F(Progress, IsNegativeWithANegativeExpectedTime)
{
    startUpdate(-60);

    EXPECT_EQ(askAt(after(kStart, 30)), reply(1, -50));
}

TEST_F(Progress, OfLaterUpdatesGoesByTheExpectedTimeOfTheFirst)
{
    startUpdate(60);
    gate->open();
    ASSERT_EQ(outcome(), reply(2, 100));
    const auto second = makeGate();
    device.changeModule("alpha", waitingAt(second, 600));
    setMonotonicTime({5000, 0});
    ASSERT_EQ(client.ask(1), reply(0));
    ASSERT_TRUE(second->isReached());

    EXPECT_EQ(askAt({5030, 0}), reply(1, 50));
}

TEST_P(ProgressArithmetic, StaysRight)
{
    const Wrap& wrap = GetParam();
    const timespec start = {wrap.startSeconds, 500000000};
    startUpdate(wrap.expectedSeconds, start);

    EXPECT_EQ(askAt(after(start, wrap.elapsed)), reply(1, wrap.percent));
}

// The microseconds are counted in 32 bits: 2^31 of them are 2147.48 s, 2^32 are 4294.97 s.
INSTANTIATE_TEST_SUITE_P(
    Wraps, ProgressArithmetic,
    ::testing::Values(Wrap{"LongestRun", 1000, 2147, 10000, 21},
                      Wrap{"LongestRunCappedAt99", 1000, 2147, 100, 99},
                      Wrap{"OverTheSignOfTheClock", 2140, 30, 60, 50},
                      Wrap{"OverTheEndOfTheClock", 4290, 30, 60, 50},
                      Wrap{"LongestRunOverTheEndOfTheClock", 4000, 2147, 10000, 21},
                      Wrap{"LateInTheLifeOfTheDevice", 40000000, 30, 60, 50},
                      Wrap{"BeyondTheLongestRun", 1000, 2148, 10000, -21},
                      Wrap{"ManyTimesTheLongestRun", 1000, 4295967, 10000, 9}),
    [](const ::testing::TestParamInfo<Wrap>& wrap) { return std::string(wrap.param.name); });
