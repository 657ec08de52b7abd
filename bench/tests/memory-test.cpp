#include "process/memory.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <sstream>
#include <stdexcept>
#include <vector>

namespace quillon::bench {
namespace {

TEST(Memory, IsReadFromTheKernelsText)
{
    std::istringstream text(
        "5587ab3f4000-7ffcbd8fa000 ---p 00000000 00:00 0                          [rollup]\n"
        "Rss:               12112 kB\n"
        "Pss:                9551 kB\n"
        "Private_Clean:      6828 kB\n"
        "Private_Dirty:      1952 kB\n"
        "Anonymous:          1712 kB\n");

    const Memory memory = parseSmapsRollup(text);

    EXPECT_EQ(memory.resident, 12112);
    EXPECT_EQ(memory.proportional, 9551);
    EXPECT_EQ(memory.unshared, 6828 + 1952);
    EXPECT_EQ(memory.anonymous, 1712);
}

TEST(Memory, ATextWithoutAFieldIsRefused)
{
    std::istringstream text("0-1 ---p 00000000 00:00 0 [rollup]\nRss: 1 kB\n");

    EXPECT_THROW(parseSmapsRollup(text), std::runtime_error);
}

TEST(Memory, GrowsWithWhatAProcessWrites)
{
    constexpr std::size_t kMebibytes16 = 16777216;
    const Memory before = memoryOf(getpid());
    const std::vector<char> written(kMebibytes16, 'x');

    const Memory after = memoryOf(getpid());

    EXPECT_GE(after.anonymous - before.anonymous, 15 * 1024);
    EXPECT_GE(after.resident - before.resident, 15 * 1024);
    EXPECT_EQ(written.back(), 'x');
}

TEST(Memory, OfAProcessThatIsNotThereIsAnError)
{
    EXPECT_THROW(memoryOf(0), std::runtime_error);
}

}  // namespace
}  // namespace quillon::bench
