#include "gate/counts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

namespace quillon::bench {
namespace {

using ::testing::HasSubstr;

Json::Value counts(Json::UInt64 instructions, Json::UInt64 allocations)
{
    Json::Value value;
    value["a path"]["instructions"] = instructions;
    value["a path"]["allocations"] = allocations;
    return value;
}

bool allHeld(const std::vector<Held>& held)
{
    return std::all_of(held.begin(), held.end(), [](const Held& line) { return line.isHeld; });
}

TEST(Counts, WithinThreePercentAreHeld)
{
    EXPECT_TRUE(allHeld(holdAgainst(counts(1000, 100), counts(1030, 103))));
    EXPECT_TRUE(allHeld(holdAgainst(counts(1000, 100), counts(970, 97))));
    EXPECT_TRUE(allHeld(holdAgainst(counts(1000, 0), counts(1000, 0))));
}

TEST(Counts, MoreInstructionsAreNotHeld)
{
    EXPECT_FALSE(allHeld(holdAgainst(counts(1000, 100), counts(1031, 100))));
}

TEST(Counts, FewerAreNotHeldEitherSinceTheRecordWouldHideALaterLoss)
{
    EXPECT_FALSE(allHeld(holdAgainst(counts(1000, 100), counts(969, 100))));
}

TEST(Counts, OneMoreAllocationOfFewIsNotHeld)
{
    EXPECT_FALSE(allHeld(holdAgainst(counts(1000, 8), counts(1000, 9))));
    EXPECT_FALSE(allHeld(holdAgainst(counts(1000, 0), counts(1000, 1))));
}

TEST(Counts, APathThatOnlyOneSideHasIsNotHeld)
{
    const Json::Value none(Json::objectValue);

    EXPECT_FALSE(allHeld(holdAgainst(none, counts(1000, 100))));
    EXPECT_FALSE(allHeld(holdAgainst(counts(1000, 100), none)));
    EXPECT_FALSE(allHeld(holdAgainst(none, counts(0, 0))));
}

TEST(Counts, TheTableMarksWhatIsNotHeld)
{
    const std::string text = toText(holdAgainst(counts(1000, 8), counts(1050, 8)));

    EXPECT_THAT(text, HasSubstr("1000        1050    +5.0 %  NOT HELD\n"));
    EXPECT_THAT(text, HasSubstr("8           8    +0.0 %\n"));
}

TEST(Counts, AreTakenFromWhatTheProgramsSay)
{
    EXPECT_EQ(instructionsIn("==7== Events    : Ir\n==7== Collected : 483507\n==7==\n"), 483507U);
    EXPECT_EQ(allocationsIn("allocations 8\n"), 8U);
    EXPECT_THROW(instructionsIn("==7== Killed\n"), std::runtime_error);
    EXPECT_THROW(allocationsIn(""), std::runtime_error);
}

TEST(Toolchain, IsTheSameAsItself)
{
    EXPECT_EQ(toolchainDifference(thisToolchain(), thisToolchain()), "");
}

TEST(Toolchain, ADifferenceIsToldInWords)
{
    Json::Value recorded = thisToolchain();
    const std::string here = recorded["compiler"].asString();
    recorded["compiler"] = "GCC 3.4";

    EXPECT_EQ(toolchainDifference(recorded, thisToolchain()),
              "compiler " + here + " instead of GCC 3.4");
}

}  // namespace
}  // namespace quillon::bench
