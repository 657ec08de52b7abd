// A stick that cannot be read any more in the middle of an image.

#include <unistd.h>

#include <filesystem>

#include "support/process.h"
#include "system/system-test.h"
#include "unit/verifier/test-keys.h"

namespace fs = std::filesystem;

namespace quillon::test {
namespace {

constexpr const char* kFileSystem = "/var/lib/quillon/stick.img";

/// A mounted stick whose medium ends in the middle of the module's image. The test's own verifier
/// is not asked: reading an image is the service's own affair.
class UnreadableImages : public SystemTest
{
protected:
    void SetUp() override
    {
        SystemTest::SetUp();
        for (const std::string& name : allModules()) {
            removeModule(name);
        }
        removeVerifier();
        installTestModule("alpha", "need=1\nseconds=5\ncapture=/var/lib/quillon/alpha.payload\n");
        const std::string content = "/var/lib/quillon/stick";
        fs::create_directory(content);
        makeImage(content + "/alpha.bin", "a", "2.0", randomBytes(4U << 20U, 3));
        ASSERT_TRUE(succeeds("mke2fs -q -t ext4 -O ^has_journal -d " + content + " " + kFileSystem +
                             " 8M"));
        if (!succeeds(std::string("mount -o loop,ro ") + kFileSystem + " " + kStick)) {
            GTEST_SKIP() << "root may not mount loop devices here";
        }
    }
    void TearDown() override
    {
        SystemTest::TearDown();
        static_cast<void>(succeeds(std::string("umount ") + kStick));
    }
};

TEST_F(UnreadableImages, AreNotFlashedUpToWhereTheReadingFails)
{
    startDaemon();
    // The file system's own blocks come first, so that half of it ends within the image.
    ASSERT_EQ(truncate(kFileSystem, 4U << 20U), 0);

    EXPECT_EQ(estimate().result, MQ_RESULT_REFUSED);
    EXPECT_EQ(start(), std::nullopt);

    EXPECT_EQ(daemon.logLinesWith("getNeedUpdateList").size(), 2U);
    EXPECT_EQ(daemon.logLinesWith("Error: Decryption data is null").size(), 2U);
    EXPECT_FALSE(fs::exists("/var/lib/quillon/alpha.payload"));
}

TEST_F(UnreadableImages, EndARunThatHasBeenEstimatedBefore)
{
    startDaemon();
    ASSERT_EQ(estimate().result, MQ_RESULT_ACCEPTED);
    ASSERT_EQ(start(), MQ_RESULT_ACCEPTED);
    ASSERT_EQ(waitForRun().result, MQ_RESULT_DONE);
    fs::remove("/var/lib/quillon/alpha.payload");
    ASSERT_TRUE(succeeds(std::string("umount ") + kStick + " && mount -o loop,ro " + kFileSystem +
                         " " + kStick));
    ASSERT_EQ(truncate(kFileSystem, 4U << 20U), 0);

    ASSERT_EQ(start(), MQ_RESULT_ACCEPTED);

    EXPECT_EQ(waitForRun().result, MQ_RESULT_FAILED);
    EXPECT_FALSE(fs::exists("/var/lib/quillon/alpha.payload"));
}

}  // namespace
}  // namespace quillon::test
