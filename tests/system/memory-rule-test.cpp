// The memory that the service takes, as memory-limit.conf has its limit chosen.
#include "system/system-test.h"

namespace quillon::test {
namespace {

constexpr std::size_t kMebibyte = 1024;  // in KiB

using MemoryRule = SystemTest;

std::size_t mostKilobytesOf(pid_t process)
{
    const auto lines = linesOf("/proc/" + std::to_string(process) + "/status", "VmHWM:");
    return lines.empty() ? 0 : std::stoul(lines.front().substr(6));
}

TEST_F(MemoryRule, HoldsForEstimatesAndOneUpdate)
{
    if (QUILLON_SANITIZED) {
        GTEST_SKIP() << "a sanitizer keeps memory of its own";
    }
    constexpr std::size_t kImage = 24 * kMebibyte;
    putImagesForAll("2.0", kImage * 1024);
    startDaemon();
    const std::size_t imagesOfAll = kImage * allModules().size();
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(estimate().result, MQ_RESULT_ACCEPTED);
    }
    EXPECT_GT(mostKilobytesOf(daemon.pid()), kImage);
    EXPECT_LT(mostKilobytesOf(daemon.pid()), 32 * kMebibyte + kImage);

    ASSERT_EQ(update(), MQ_RESULT_DONE);
    putImagesForAll("3.0", kImage * 1024);
    ASSERT_EQ(estimate().result, MQ_RESULT_ACCEPTED);

    EXPECT_GT(mostKilobytesOf(daemon.pid()), imagesOfAll);
    EXPECT_LT(mostKilobytesOf(daemon.pid()), 32 * kMebibyte + imagesOfAll + kImage);
}

}  // namespace
}  // namespace quillon::test
