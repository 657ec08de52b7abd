#include "report/table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "rows/results.h"

namespace quillon::bench {
namespace {

using ::testing::HasSubstr;

Json::Value resultsOf(const std::vector<Row>& rows)
{
    Json::Value results;
    results["machine"] = "A processor";
    results["rows"] = Json::Value(Json::arrayValue);
    for (const Row& row : rows) {
        results["rows"].append(toJson(row));
    }
    return results;
}

TEST(Table, TellsEachRowWithItsGoal)
{
    const std::string table = rowsToMarkdown(
        resultsOf({{"work", "reference", "times as fast", 1.654, Sense::kAtLeast, 1.6, "1 ms; 2"},
                   {"other", "floor", "MiB", 123.4, Sense::kAtMost, 12.34, "why"}}));

    EXPECT_THAT(table, HasSubstr("Measured on: A processor.\n"));
    EXPECT_THAT(table,
                HasSubstr("| work | reference (1 ms; 2) | 1.65 times as fast | ≥ 1.60 | met |\n"));
    EXPECT_THAT(table, HasSubstr("| other | floor (why) | 123 MiB | ≤ 12.3 | **missed** |\n"));
    EXPECT_THAT(table, HasSubstr("1 of 2 goals met.\n"));
}

TEST(Table, TellsTheSharesOfEachResource)
{
    Json::Value results;
    std::istringstream(R"({"boundsImageBytes": 2097152, "bounds": [
        {"setting": "slow", "modules": 10, "phase": "update", "seconds": 2,
         "medium": 1.5, "processor": 0.5, "plugin": 0, "bound": "medium"}]})") >>
        results;

    const std::string table = boundsToMarkdown(results);

    EXPECT_THAT(table, HasSubstr("Images of 2.00 MiB each"));
    EXPECT_THAT(table, HasSubstr("| slow | update | 10 | 2.000 | 75 % | 25 % | 0 % | medium |\n"));
}

TEST(Table, WithoutBoundsThereIsNone)
{
    EXPECT_EQ(boundsToMarkdown(Json::Value()), "");
}

TEST(Table, TellsThePartsOfDeciphering)
{
    Json::Value results;
    std::istringstream(R"({"decipheringParts": {"bytes": 16777216, "whole": 10, "reading": 4,
                           "memory": 2.5, "cipher": 3}})") >>
        results;

    EXPECT_THAT(partsToMarkdown(results), HasSubstr("an image of 16 MiB"));
    EXPECT_THAT(partsToMarkdown(results), HasSubstr("huge pages | 2.5 | 25 % |\n"));
    EXPECT_THAT(partsToMarkdown(results), HasSubstr("| these three together | 9.5 | 95 % |\n"));
    EXPECT_EQ(partsToMarkdown(Json::Value()), "");
}

TEST(Table, TellsTheRatioOfTwoBuilds)
{
    Json::Value results;
    std::istringstream(R"({"machine": "A processor", "comparison": [
        {"work": "start", "unit": "ms", "base": 8, "here": 6}]})") >>
        results;

    EXPECT_THAT(comparisonToMarkdown(results),
                HasSubstr("| start | 8.00 ms | 6.00 ms | 0.750 |\n"));
}

}  // namespace
}  // namespace quillon::bench
