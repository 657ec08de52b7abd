#include "rows/results.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "rows/bounds.h"

namespace quillon::bench {
namespace {

using ::testing::ElementsAre;

Row row(double measured, Sense sense, double limit)
{
    return {"work", "reference", "times", measured, sense, limit, ""};
}

TEST(Rows, AGoalIsMetOnItsOwnSideOfTheLimit)
{
    EXPECT_TRUE(isMet(row(1.6, Sense::kAtLeast, 1.6)));
    EXPECT_FALSE(isMet(row(1.59, Sense::kAtLeast, 1.6)));
    EXPECT_TRUE(isMet(row(0.6, Sense::kAtMost, 0.6)));
    EXPECT_FALSE(isMet(row(0.61, Sense::kAtMost, 0.6)));
}

TEST(Rows, AreWrittenWithTheirGoal)
{
    const Json::Value value = toJson(row(2, Sense::kAtMost, 1.5));

    EXPECT_EQ(value["goal"].asString(), "at most");
    EXPECT_EQ(value["limit"].asDouble(), 1.5);
    EXPECT_EQ(value["measured"].asDouble(), 2);
    EXPECT_FALSE(value["met"].asBool());
}

TEST(InTurns, TakesTurnsAndEveryOtherRoundGoesTheOtherWayRound)
{
    std::string order;
    const auto say = [&order](char letter) {
        return [&order, letter] {
            order += letter;
            return 0.0;
        };
    };

    inTurns(2, {say('a'), say('b'), say('c')});

    EXPECT_EQ(order,
              "abc"  // once before, which does not count
              "abccba");
}

TEST(InTurns, KeepsTheSamplesOfEachButTheFirst)
{
    double a = 0;
    double b = 10;

    const auto samples = inTurns(3, {[&a] { return ++a; }, [&b] { return ++b; }});

    EXPECT_THAT(samples[0], ElementsAre(2, 3, 4));
    EXPECT_THAT(samples[1], ElementsAre(12, 13, 14));
}

TEST(ScopedVariable, IsGoneAtTheEnd)
{
    {
        const ScopedVariable variable("QUILLON_BENCH_SOMETHING", "value");
        EXPECT_STREQ(std::getenv("QUILLON_BENCH_SOMETHING"), "value");
    }
    EXPECT_EQ(std::getenv("QUILLON_BENCH_SOMETHING"), nullptr);
}

TEST(Bound, IsTheResourceThatWasBusyLongest)
{
    EXPECT_EQ(boundOf(3, 2, 1), "medium");
    EXPECT_EQ(boundOf(1, 2, 1), "processor");
    EXPECT_EQ(boundOf(1, 2, 3), "plug-in");
    EXPECT_EQ(boundOf(0, 0.1, 0), "processor");
}

}  // namespace
}  // namespace quillon::bench
