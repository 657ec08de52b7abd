#include "process/finished-process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace quillon::bench {
namespace {

TEST(FinishedProcess, TellsWhatAProgramHasSaid)
{
    const Finished finished = runToEnd({"sh", "-c", "printf 'one\\ntwo'; printf three >&2"});

    EXPECT_EQ(finished.output, "one\ntwo");
    EXPECT_EQ(finished.errors, "three");
    EXPECT_TRUE(finished.succeeded);
}

TEST(FinishedProcess, SleepingTakesTimeAndNoProcessor)
{
    const Finished finished = runToEnd({"sleep", "0.2"});

    EXPECT_GE(finished.wallSeconds, 0.2);
    EXPECT_LT(finished.cpuSeconds, 0.1);
}

TEST(FinishedProcess, WorkOfItsChildrenCountsAsItsOwn)
{
    const std::string work = "i=0; while [ $i -lt 200000 ]; do i=$((i + 1)); done";

    EXPECT_GT(runToEnd({"sh", "-c", "(" + work + ") & wait"}).cpuSeconds, 0.01);
}

TEST(FinishedProcess, RunsInTheFolderThatItIsGiven)
{
    EXPECT_EQ(runToEnd({"pwd"}, "/usr/lib").output, "/usr/lib\n");
}

TEST(FinishedProcess, AFailureSaysWhatTheProgramSaid)
{
    try {
        runToEnd({"sh", "-c", "echo the reason >&2; exit 3"});
        FAIL() << "it did not fail";
    } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(), ::testing::HasSubstr("the reason"));
    }
    EXPECT_THROW(runToEnd({"sh", "-c", "kill -9 $$"}), std::runtime_error);
    EXPECT_THROW(runToEnd({"/no/such/program"}), std::runtime_error);
}

TEST(FinishedProcess, AnyEndIsTakenWhereItDoesNotMatter)
{
    const Finished finished = runToAnyEnd({"sh", "-c", "echo done; exit 1"});

    EXPECT_EQ(finished.output, "done\n");
    EXPECT_FALSE(finished.succeeded);
    EXPECT_THROW(runToAnyEnd({"/no/such/program"}), std::runtime_error);
}

TEST(FinishedProcess, TheTimeUntilItsWordIsNotThatToItsEnd)
{
    const Finished finished =
        runUntilItSays({"sh", "-c", "echo done; sleep 0.5; exit 1"}, "", "done");

    EXPECT_LT(finished.wallSeconds, 0.4);
    EXPECT_FALSE(finished.succeeded);
}

TEST(FinishedProcess, WithoutItsWordItHasFailed)
{
    EXPECT_THROW(runUntilItSays({"echo", "nothing"}, "", "done"), std::runtime_error);
}

}  // namespace
}  // namespace quillon::bench
