// A device with a policy: images for one module of one model, from a security counter on.

#include <filesystem>

#include "system/system-test.h"
#include "unit/verifier/test-keys.h"

namespace quillon::test {
namespace {

class TrustPolicyOfDevice : public SystemTest
{
protected:
    void SetUp() override
    {
        SystemTest::SetUp();
        putPolicy("model = TV2024\nformat-1 = refused\n");
    }

    void TearDown() override
    {
        std::filesystem::remove(QUILLON_TRUST_POLICY);
        std::filesystem::remove(QUILLON_SECURITY_FLOORS);
        SystemTest::TearDown();
    }

    static void putImageFor(const ImagePurpose& purpose, const std::string& module)
    {
        makeImage(imagePath(module), "a", "2.0", "firmware for the " + purpose.module, purpose);
    }
};

TEST_F(TrustPolicyOfDevice, HasWhatFitsInstalledAndNothingElse)
{
    putFloors("floor.panel = 6\n");
    putImageFor({"tuner", "TV2024", 5}, "tuner");
    putImageFor({"tuner", "TV2024", 5}, "camera");
    putImageFor({"panel", "TV2024", 5}, "panel");
    startDaemon();

    EXPECT_EQ(update(), MQ_RESULT_DONE);
    EXPECT_EQ(flashed("tuner"), "firmware for the tuner");
    EXPECT_EQ(version("tuner"), "2.0");
    EXPECT_EQ(version("camera"), "1.0") << "the tuner's image under the camera's name";
    EXPECT_EQ(version("panel"), "1.0") << "an image below the floor";
}

TEST_F(TrustPolicyOfDevice, ThatIsWrongHasNothingInstalled)
{
    putPolicy("model TV2024\n");
    putImageFor({"tuner", "TV2024", 5}, "tuner");
    startDaemon();

    EXPECT_EQ(update(), MQ_RESULT_REFUSED);
    EXPECT_EQ(version("tuner"), "1.0");
}

}  // namespace
}  // namespace quillon::test
