#include "report/chart.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "report/charts-of-results.h"

namespace quillon::bench {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

Chart chart()
{
    return {"A title",
            "size",
            "ms",
            {{"ours", {{1, 2}, {10, 20}}, false}, {"limit < ours", {{1, 3}, {10, 30}}, true}}};
}

TEST(Chart, DrawsEachLineAndNamesIt)
{
    const std::string svg = toSvg({chart()});

    EXPECT_THAT(svg, HasSubstr("<svg "));
    EXPECT_THAT(svg, HasSubstr(">A title</text>"));
    EXPECT_THAT(svg, HasSubstr(">ours</text>"));
    EXPECT_THAT(svg, HasSubstr("class=\"line\""));
    EXPECT_THAT(svg, HasSubstr("class=\"line limit\""));
}

TEST(Chart, TextsCannotBreakThePicture)
{
    EXPECT_THAT(toSvg({chart()}), HasSubstr("limit &lt; ours"));
}

TEST(Chart, MorePointsLieHigherAndFurtherRight)
{
    // One decade across and two up: 1 to 10, and 1 to 100.
    EXPECT_THAT(toSvg({chart()}), HasSubstr("points=\"56.0,239.6 344.0,118.6 \""));
}

TEST(Chart, WithoutPointsIsLeftOut)
{
    EXPECT_THAT(toSvg({{"Empty", "x", "y", {{"nothing", {}, false}}}}), Not(HasSubstr("Empty")));
}

TEST(Charts, AreMadeOfWhatWasMeasured)
{
    Json::Value results;
    std::istringstream(R"({
        "deciphering": [{"bytes": 16777216, "service": 10, "plain": 15, "goal": 1.4},
                        {"bytes": 67108864, "service": 40, "plain": 60, "goal": 0}],
        "start": [{"modules": 1, "process": "service", "time": {"median": 6}},
                  {"modules": 1, "process": "floor", "time": {"median": 4}},
                  {"modules": 1, "process": "modules-floor", "time": {"median": 5}}],
        "boundsImageBytes": 2097152,
        "bounds": [{"setting": "in the page cache", "phase": "estimate", "modules": 1,
                    "seconds": 0.01, "medium": 0},
                   {"setting": "at 40 MB/s, read once", "phase": "estimate", "modules": 1,
                    "seconds": 0.06, "medium": 0.05},
                   {"setting": "in the page cache", "phase": "update", "modules": 1,
                    "seconds": 9, "medium": 0}]})") >>
        results;

    const std::vector<Chart> charts = chartsOf(results);

    ASSERT_EQ(charts.size(), 3U);
    EXPECT_EQ(charts[0].lines[0].points.size(), 2U);
    ASSERT_EQ(charts[0].lines[2].points.size(), 1U);
    EXPECT_NEAR(charts[0].lines[2].points[0].y, 15 / 1.4, 1e-9);
    ASSERT_EQ(charts[1].lines[2].points.size(), 1U);
    EXPECT_NEAR(charts[1].lines[2].points[0].y, 8.5, 1e-9);
    ASSERT_EQ(charts[2].lines[0].points.size(), 1U);
    EXPECT_NEAR(charts[2].lines[2].points[0].y, 0.05, 1e-9);
}

TEST(Charts, OfNothingAreEmpty)
{
    EXPECT_THAT(toSvg(chartsOf(Json::Value())), Not(HasSubstr("polyline")));
}

}  // namespace
}  // namespace quillon::bench
