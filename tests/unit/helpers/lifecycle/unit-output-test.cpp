#include <gtest/gtest.h>

#include <string>

#include "support/process.h"

namespace {

using quillon::test::runInShell;

TEST(UnitOutput, ThatCannotBeWrittenIsAFailure)
{
    for (const std::string option : {"--help", "--version"}) {
        const std::string command = QUILLON_UNIT_PROGRAM " " + option + " 2>/dev/null >";
        EXPECT_EQ(runInShell(command + "/dev/null").status, 0) << option;
        EXPECT_EQ(runInShell(command + "/dev/full").status, 1) << option;
    }
}

}  // namespace
