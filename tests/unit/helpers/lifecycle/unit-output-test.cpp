#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <string>

namespace {

TEST(UnitOutput, ThatCannotBeWrittenIsAFailure)
{
    for (const std::string option : {"--help", "--version"}) {
        const std::string command = QUILLON_UNIT_PROGRAM " " + option + " 2>/dev/null >";
        EXPECT_EQ(WEXITSTATUS(std::system((command + "/dev/null").c_str())), 0) << option;
        EXPECT_EQ(WEXITSTATUS(std::system((command + "/dev/full").c_str())), 1) << option;
    }
}

}  // namespace
