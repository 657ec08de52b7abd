// Helpers for texts.

#include "support/text.h"

#include <gtest/gtest.h>

namespace quillon::test {
namespace {

TEST(ToUpper, RaisesEachLetterAndNothingElse)
{
    EXPECT_EQ(toUpper("my-ext-tool_09Z{"), "MY-EXT-TOOL_09Z{");
    EXPECT_EQ(toUpper(""), "");
}

TEST(ToUpper, TakesEveryByte)
{
    EXPECT_EQ(toUpper("\x80\xFF"), "\x80\xFF");
}

}  // namespace
}  // namespace quillon::test
