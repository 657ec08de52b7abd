// Updates from a package: the payload is a file, told together with its checksum.

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <thread>

#include "support/wait.h"
#include "unit/examples/example-module.h"

namespace quillon::test {
namespace {

class Package : public FirmwareModules
{
protected:
    void SetUp() override
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "mounted-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        mountPoint = pattern;
        image = mountPoint + "/" + module.name + ".bin";
    }

    void TearDown() override { std::filesystem::remove_all(mountPoint); }

    int update(unsigned long crc) { return CALL(module, doUpdate)(image.c_str(), crc); }

    void writeImage(const std::string& payload) const
    {
        std::ofstream(image, std::ios::binary) << payload;
    }

    std::string mountPoint;
    std::string image;
};

constexpr char kPayload[] = "123456789";
constexpr unsigned long kChecksum = 0x6A50465C;

TEST_P(Package, IsInstalledInTheOrderOfTheService)
{
    writeImage(kPayload);
    char argument[] = "";
    int need = -1;

    // Is an update needed?
    ASSERT_EQ(CALL(module, setContext)(module.name.c_str(), CALLER_SERVICE, argument), 0);
    ASSERT_EQ(CALL(module, checkVersion)("2.0", &need), 0);
    ASSERT_EQ(need, 1);
    // The update.
    need = -1;
    ASSERT_EQ(CALL(module, setContext)(module.name.c_str(), CALLER_SERVICE, argument), 0);
    ASSERT_EQ(CALL(module, checkVersion)("2.0", &need), 0);
    ASSERT_EQ(need, 1);
    ASSERT_EQ(update(kChecksum), 0);

    EXPECT_EQ(module.file("firmware.bin"), kPayload);
    EXPECT_EQ(activeVersion(), "2.0");
    EXPECT_EQ(progress(), 100U);
    ASSERT_EQ(offer("2.0", &need), 0);
    EXPECT_EQ(need, 0) << "installed already";
    EXPECT_EQ(CALL(module, allUpdateDone)(), 0);
}

TEST_P(Package, WithAnotherChecksumLeavesTheOldFirmware)
{
    writeImage(kPayload);
    ASSERT_EQ(offer("2.0"), 0);
    ASSERT_EQ(flash("old"), 0);
    ASSERT_EQ(offer("3.0"), 0);

    constexpr unsigned long highestBit = ~(~0UL >> 1U);
    for (const unsigned long crc : {kChecksum + 1, 0UL, kChecksum + highestBit}) {
        EXPECT_EQ(update(crc), -1);
        EXPECT_EQ(errno, EBADMSG);
    }
    EXPECT_EQ(module.file("firmware.bin"), "old");
    EXPECT_EQ(activeVersion(), "2.0");
    EXPECT_FALSE(std::filesystem::exists(module.state + "firmware.bin.part"));
}

TEST_P(Package, MayHoldAnEmptyPayload)
{
    writeImage("");
    ASSERT_EQ(offer("2.0"), 0);
    EXPECT_EQ(update(1), -1);
    EXPECT_EQ(errno, EBADMSG);

    EXPECT_EQ(update(0), 0);
    EXPECT_EQ(module.file("firmware.bin"), "");
    EXPECT_EQ(activeVersion(), "2.0");
}

TEST_P(Package, MayBeLarge)
{
    module.configure("speed=0\n");
    const std::string payload = std::string(1000000, '\0') + kPayload;  // zeros do not count
    writeImage(payload);
    ASSERT_EQ(offer("2.0"), 0);
    EXPECT_EQ(update(kChecksum), 0);
    EXPECT_TRUE(module.file("firmware.bin") == payload);
}

TEST_P(Package, WithoutItsImageFails)
{
    ASSERT_EQ(offer("2.0"), 0);
    EXPECT_EQ(update(kChecksum), -1);
    EXPECT_EQ(errno, ENOENT);

    std::filesystem::create_directory(image);
    EXPECT_EQ(update(kChecksum), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(activeVersion(), "0");
}

TEST_P(Package, NeedsAnOfferedVersion)
{
    writeImage(kPayload);
    EXPECT_EQ(update(kChecksum), -1);
    EXPECT_EQ(errno, ENODATA);
    EXPECT_FALSE(std::filesystem::exists(module.state + "firmware.bin"));
}

TEST_P(Package, IsWatchedWhileItIsInstalled)
{
    module.configure("speed=2500\n");  // two seconds
    writeImage(std::string(5000, '\0'));
    ASSERT_EQ(offer("2.0"), 0);
    std::thread installation([this] { EXPECT_EQ(update(0), 0); });

    waitFor("a tenth of the update", [this] { return progress() >= 10; });
    EXPECT_LT(progress(), 100U);
    EXPECT_EQ(activeVersion(), "0");
    EXPECT_EQ(update(0), -1) << "one at a time";
    EXPECT_EQ(errno, EBUSY);
    installation.join();
    EXPECT_EQ(progress(), 100U);
    EXPECT_EQ(activeVersion(), "2.0");
}

INSTANTIATE_TEST_SUITE_P(Of, Package, kFirmwareModules, nameOf);

}  // namespace
}  // namespace quillon::test
