// What the progress of an update looks like.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "tools/quillonctl/progress-display.h"

using namespace quillon;

TEST(CtlTimeLeft, IsToldInSecondsThenInMinutes)
{
    EXPECT_EQ(describeTimeLeft(1), "about 1 s left");
    EXPECT_EQ(describeTimeLeft(119), "about 119 s left");
    EXPECT_EQ(describeTimeLeft(120), "about 2 min left");
    EXPECT_EQ(describeTimeLeft(149), "about 2 min left");
    EXPECT_EQ(describeTimeLeft(150), "about 3 min left");
}

TEST(CtlTimeLeft, MayBeTheLongestThatAServiceCanSay)
{
    EXPECT_EQ(describeTimeLeft(std::numeric_limits<int>::max()), "about 35791394 min left");
}

TEST(CtlTimeLeft, DoesNotPretendOnceTheEstimateIsUsedUp)
{
    EXPECT_EQ(describeTimeLeft(0), "longer than expected");
    EXPECT_EQ(describeTimeLeft(-3), "longer than expected");
}

TEST(CtlPlainProgress, IsOneLineForEachPercentage)
{
    ProgressDisplay display(false);

    EXPECT_EQ(display.show(0, 20, 0), "0 % (about 20 s left)\n");
    EXPECT_EQ(display.show(0, 19, 0), "");
    EXPECT_EQ(display.show(37, 12, 0), "37 % (about 12 s left)\n");
    EXPECT_EQ(display.show(99, 0, 0), "99 % (longer than expected)\n");
    EXPECT_EQ(display.show(99, 0, 0), "");
    EXPECT_EQ(display.end(), "");
}

TEST(CtlProgressBar, FillsTheTerminalButForItsLastColumn)
{
    ProgressDisplay display(true);

    EXPECT_EQ(display.show(50, 12, 46), "\r[##########..........]  50 %, about 12 s left\x1b[K");
}

TEST(CtlProgressBar, IsNotDrawnAgainUnchangedButWhenTheTimeChanges)
{
    ProgressDisplay display(true);
    display.show(50, 12, 80);

    EXPECT_EQ(display.show(50, 12, 80), "");
    EXPECT_NE(display.show(50, 11, 80), "");
}

TEST(CtlProgressBar, GrowsNoLongerThanFiftyCharacters)
{
    ProgressDisplay display(true);

    EXPECT_EQ(display.show(100, 0, 300),
              "\r[" + std::string(50, '#') + "] 100 %, longer than expected\x1b[K");
}

TEST(CtlProgressBar, StaysInsideTheTerminalAtEveryWidthAndPercentage)
{
    ProgressDisplay display(true);
    for (int columns = 0; columns < 120; ++columns) {
        for (const int percent : {-7, 0, 1, 50, 99, 100, 12345}) {
            const std::string shown = display.show(percent, 600, columns);
            const std::size_t frame = std::string("\r\x1b[K").size();
            ASSERT_LE(shown.size(),
                      frame + static_cast<std::size_t>(columns > 0 ? columns - 1 : 0));
        }
    }
}

TEST(CtlProgressBar, LeavesTheNumbersWhereThereIsNoRoomForMore)
{
    ProgressDisplay display(true);

    EXPECT_EQ(display.show(50, 12, 30), "\r 50 %, about 12 s left\x1b[K");
    EXPECT_EQ(display.show(50, 12, 6), "\r 50 %\x1b[K");
}

TEST(CtlProgressBar, LeavesTheScreenWhenItEnds)
{
    ProgressDisplay display(true);
    EXPECT_EQ(display.end(), "");
    display.show(50, 12, 80);

    EXPECT_EQ(display.end(), "\r\x1b[K");
    EXPECT_EQ(display.end(), "");
}
