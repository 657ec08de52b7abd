#include "footprint/measure.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <chrono>
#include <stdexcept>
#include <string>

namespace quillon::bench {
namespace {

Plan quickPlan()
{
    Plan plan;
    plan.buildFolder = BUILD_FOLDER;
    plan.moduleCounts = {1};
    plan.runs = 3;
    plan.memoryModules = 1;
    plan.memoryRuns = 1;
    plan.settle = std::chrono::milliseconds(100);
    return plan;
}

void expectOrderly(const Json::Value& spread)
{
    EXPECT_LE(spread["least"].asDouble(), spread["median"].asDouble());
    EXPECT_LE(spread["median"].asDouble(), spread["p95"].asDouble());
    EXPECT_GT(spread["least"].asDouble(), 0);
}

TEST(Measure, AQuickRunWithOneModuleEndsWithSaneValues)
{
    const Json::Value results = measureInDevice(quickPlan());

    const Json::Value& start = results["start"];
    ASSERT_EQ(start.size(), 3U);
    for (const Json::Value& result : start) {
        EXPECT_EQ(result["modules"].asInt(), 1);
        EXPECT_EQ(result["time"]["runs"].asInt(), 3);
        expectOrderly(result["time"]);
        EXPECT_LT(result["time"]["median"].asDouble(), 20000);
    }
    EXPECT_EQ(start[0]["process"].asString(), kService);
    EXPECT_EQ(start[1]["process"].asString(), kFloor);
    EXPECT_EQ(start[2]["process"].asString(), kModulesFloor);

    const Json::Value& memory = results["memory"];
    ASSERT_EQ(memory.size(), 3U);
    for (const Json::Value& result : memory) {
        for (const char* kind : {"resident", "proportional", "unshared", "anonymous"}) {
            expectOrderly(result[kind]);
            EXPECT_LE(result[kind]["median"].asDouble(), result["resident"]["median"].asDouble());
        }
    }
}

TEST(Measure, EveryCountOfModulesGetsItsRuns)
{
    Plan plan = quickPlan();
    plan.moduleCounts = {0, 2};
    plan.runs = 1;  // fewer than there are passes

    const Json::Value start = measureInDevice(plan)["start"];

    ASSERT_EQ(start.size(), 6U);
    EXPECT_EQ(start[0]["modules"].asInt(), 0);
    EXPECT_EQ(start[3]["modules"].asInt(), 2);
    EXPECT_EQ(start[3]["time"]["runs"].asInt(), 1);
}

TEST(Measure, AServiceThatDoesNotComeUpIsAnError)
{
    Plan plan = quickPlan();
    plan.buildFolder = "/no/such/build";

    EXPECT_THROW(measureInDevice(plan), std::runtime_error);
}

TEST(Measure, NoRunsAreRefused)
{
    Plan plan = quickPlan();
    plan.runs = 0;

    EXPECT_THROW(measureInDevice(plan), std::runtime_error);
}

TEST(Sizes, AreThoseOfTheStrippedFiles)
{
    const Json::Value sizes = strippedSizes(BUILD_FOLDER);

    ASSERT_GE(sizes.size(), 2U);
    EXPECT_EQ(sizes[0]["file"].asString(), "quillon-service");
    EXPECT_EQ(sizes[1]["file"].asString(), "do-nothing");
    EXPECT_GT(sizes[0]["bytes"].asUInt64(), sizes[1]["bytes"].asUInt64());
    EXPECT_GT(sizes[1]["bytes"].asUInt64(), 4096U);
}

TEST(Sizes, OfABuildThatHasNothingAreNone)
{
    EXPECT_EQ(strippedSizes("/no/such/build").size(), 0U);
}

}  // namespace
}  // namespace quillon::bench
