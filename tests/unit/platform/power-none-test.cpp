#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "captured-stderr.h"
#include "platform/power.h"

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

TEST(NoPowerLock, FailsAndSaysOnceThatThereIsNone)
{
    unsetenv("JOURNAL_STREAM");
    const CapturedStderr captured;
    EXPECT_EQ(device_power_lock_state(2, 1000), -1);
    EXPECT_EQ(device_power_lock_state(2, 1000), -1);
    EXPECT_THAT(captured.lines(),
                ElementsAre(AllOf(StartsWith("QUILLON-PLATFORM I inhibitor-none.cpp: "),
                                  HasSubstr("no power lock"))));
}

TEST(NoPowerLock, IsNeverHeldAfterAnUnlock)
{
    const CapturedStderr captured;
    EXPECT_EQ(device_power_unlock_state(2), 0);
    EXPECT_EQ(captured.text(), "");
}

}  // namespace
