// The real service on a device's own platform library, examples/platform: linked to it, or with it
// preloaded.

#include <gmock/gmock.h>

#include <cstdlib>
#include <filesystem>

#include "system/system-test.h"
#include "unit/verifier/test-keys.h"

namespace quillon::test {
namespace {

namespace fs = std::filesystem;
using ::testing::Each;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

class OwnPlatformUpdate : public SystemTest
{
protected:
    void SetUp() override
    {
        SystemTest::SetUp();
        removeKey();  // this device keeps it elsewhere
        fs::create_directories(DEVICE_KEYS);
        fs::copy_file(keyPath("a", kImageKeyFile), DEVICE_KEYS "/quillon");
        putImagesForAll("2.0", 100000);
        if (*DEVICE_PLATFORM_PRELOAD != '\0') {
            ASSERT_EQ(setenv("LD_PRELOAD", DEVICE_PLATFORM_PRELOAD, 1), 0);
        }
    }
};

TEST_F(OwnPlatformUpdate, BringsEveryModuleItsPayloadFromTheStick)
{
    startDaemon();
    EXPECT_EQ(update(), MQ_RESULT_DONE);
    expectAllUpdatedTo("2.0");
    EXPECT_EQ(daemon.logLinesWith("decryption key load success").size(), 1U);
}

TEST_F(OwnPlatformUpdate, LogsThroughTheDevicesOwnLogOnly)
{
    startDaemon();
    const std::string begin = "quillon-service[" + std::to_string(daemon.pid()) + "]: ";
    EXPECT_THAT(daemon.log(), Not(IsEmpty()));
    EXPECT_THAT(daemon.log(), Each(HasSubstr(begin)));
}

TEST_F(OwnPlatformUpdate, RefusesToUpdateWithoutAKey)
{
    fs::remove_all(DEVICE_KEYS);
    startDaemon();
    EXPECT_EQ(update(), MQ_RESULT_REFUSED);
    EXPECT_EQ(daemon.logLinesWith("this device installs no provisioning packages").size(), 2U);
}

TEST_F(OwnPlatformUpdate, EndsInOrderWhenItsLifeMarkerIsGone)
{
    startDaemon();
    channel.reset();
    EXPECT_EQ(daemon.stop(), 0);
}

}  // namespace
}  // namespace quillon::test
