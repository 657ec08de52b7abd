#include "system/system-test.h"

namespace quillon::test {
namespace {

/// What a run or an estimate must give back. The memory of a run is not among it: each deciphered
/// image stays.
class Resources : public SystemTest
{
protected:
    void SetUp() override
    {
        SystemTest::SetUp();
        putImagesForAll("2.0");
        startDaemon();
        ASSERT_EQ(estimate().result, MQ_RESULT_ACCEPTED);  // loads the verifier
        descriptors_ = daemon.openDescriptors();
        threads_ = daemon.threads();
        ASSERT_GT(descriptors_, 3U);
        ASSERT_GE(threads_, 3U);  // and a sanitizer's own
    }

    void expectTheSameAsBefore()
    {
        EXPECT_EQ(daemon.openDescriptors(), descriptors_);
        EXPECT_TRUE(eventually([&] { return daemon.threads() == threads_; })) << daemon.threads();
    }

private:
    std::size_t descriptors_ = 0;
    std::size_t threads_ = 0;
};

TEST_F(Resources, TwoHundredEstimatesKeepNoDescriptorAndNoThread)
{
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(estimate().result, MQ_RESULT_ACCEPTED) << i;
    }
    expectTheSameAsBefore();
}

TEST_F(Resources, TwoHundredRefusedEstimatesKeepNoDescriptorAndNoThread)
{
    for (const std::string& name : allModules()) {
        putImage(name, "2.0", "payload", "b");
    }
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(estimate().result, MQ_RESULT_REFUSED) << i;
    }
    expectTheSameAsBefore();
}

TEST_F(Resources, RunsKeepNoDescriptorAndNoThread)
{
    for (int i = 2; i < 12; ++i) {
        putImagesForAll(std::to_string(i) + ".0");
        ASSERT_EQ(update(), MQ_RESULT_DONE) << i;
    }
    expectTheSameAsBefore();
}

TEST_F(Resources, AnEstimateKeepsNoMoreMemoryThanTheEdgesOfItsImages)
{
    if (QUILLON_SANITIZED) {
        GTEST_SKIP() << "a sanitizer keeps memory of its own";
    }
    constexpr int kEstimates = 40;
    constexpr std::size_t kImages = 3;
    constexpr std::size_t kPayload = 1000000;
    putImagesForAll("2.0", kPayload);
    ASSERT_EQ(estimate().result, MQ_RESULT_ACCEPTED);

    const std::size_t before = daemon.residentKilobytes();
    for (int i = 0; i < kEstimates; ++i) {
        ASSERT_EQ(estimate().result, MQ_RESULT_ACCEPTED);
    }
    // Each image shares its first and its last page with its neighbours.
    const std::size_t edges = kEstimates * kImages * 2 * 4;
    EXPECT_LT(daemon.residentKilobytes(), before + 2 * edges) << "before: " << before;
}

}  // namespace
}  // namespace quillon::test
