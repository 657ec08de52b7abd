// The process module.

#include "unit/examples/example-module.h"

namespace quillon::test {
namespace {

class SelfTest : public ::testing::Test
{
protected:
    ExampleModule module{"EXT-selftest"};
};

TEST_F(SelfTest, WritesItsReport)
{
    EXPECT_EQ(CALL(module, doUpdate)("EXT-selftest", 0), 0);
    EXPECT_EQ(module.file("report.txt"), "storage: passed\n");
    EXPECT_FALSE(std::filesystem::exists(module.state + "scratch"));
}

TEST_F(SelfTest, ReportsAStorageThatDoesNotKeepWhatIsWritten)
{
    std::filesystem::create_directories(module.state);
    std::filesystem::create_symlink("/dev/null", module.state + "scratch");

    EXPECT_EQ(CALL(module, doUpdate)("EXT-selftest", 0), -1);
    EXPECT_EQ(module.file("report.txt"), "storage: failed\n");
}

TEST_F(SelfTest, FailsWithoutAPlaceForItsReport)
{
    std::filesystem::create_directories(module.state + "report.txt");

    EXPECT_EQ(CALL(module, doUpdate)("EXT-selftest", 0), -1);
}

TEST_F(SelfTest, NeverNeedsAnImage)
{
    int need = -1;
    EXPECT_EQ(CALL(module, checkVersion)("2.0", &need), 0);
    EXPECT_EQ(need, 0);
}

}  // namespace
}  // namespace quillon::test
