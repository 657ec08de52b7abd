#include "process/statistics.h"

#include <gtest/gtest.h>

#include <numeric>
#include <stdexcept>
#include <vector>

namespace quillon::bench {
namespace {

TEST(Statistics, TheMedianOfAnOddNumberIsTheMiddleSample)
{
    EXPECT_EQ(median({9, 1, 5}), 5);
}

TEST(Statistics, TheMedianOfAnEvenNumberLiesBetweenTheTwoInTheMiddle)
{
    EXPECT_EQ(median({8, 1, 4, 100}), 6);
}

TEST(Statistics, APercentileIsTheSampleOfTheNearestRank)
{
    std::vector<double> samples(20);
    std::iota(samples.rbegin(), samples.rend(), 1.0);  // 20 down to 1

    EXPECT_EQ(percentile(samples, 95), 19);
    EXPECT_EQ(percentile(samples, 96), 20);
    EXPECT_EQ(percentile(samples, 100), 20);
    EXPECT_EQ(percentile(samples, 0.1), 1);
}

TEST(Statistics, OneSampleIsEveryPercentile)
{
    EXPECT_EQ(percentile({7}, 1), 7);
    EXPECT_EQ(percentile({7}, 95), 7);
}

TEST(Statistics, ASpreadTellsMedianLeastAndNumberOfRuns)
{
    const Spread spread = spreadOf({3, 1, 2, 50});

    EXPECT_EQ(spread.median, 2.5);
    EXPECT_EQ(spread.least, 1);
    EXPECT_EQ(spread.p95, 50);
    EXPECT_EQ(spread.runs, 4U);
}

TEST(Statistics, NothingIsToldAboutNoSamples)
{
    EXPECT_THROW(median({}), std::invalid_argument);
    EXPECT_THROW(percentile({}, 95), std::invalid_argument);
    EXPECT_THROW(spreadOf({}), std::invalid_argument);
}

TEST(Statistics, APercentageOutsideOfItsRangeIsRefused)
{
    EXPECT_THROW(percentile({1, 2}, 0), std::invalid_argument);
    EXPECT_THROW(percentile({1, 2}, 101), std::invalid_argument);
}

}  // namespace
}  // namespace quillon::bench
