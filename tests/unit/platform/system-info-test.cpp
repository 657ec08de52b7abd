#include "platform/system-info.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include "captured-stderr.h"
#include "support/texts.h"

namespace {

using quillon::test::expectTexts;
using quillon::test::like;

std::map<std::string, std::string>& osRelease()
{
    static std::map<std::string, std::string> entries;
    return entries;
}

}  // namespace

// Stands in front of GLib's: the machine's own os-release is nothing that a test may rely on.
extern "C" char* g_get_os_info(const char* key)
{
    const auto found = osRelease().find(key);
    return found != osRelease().end() ? strdup(found->second.c_str()) : nullptr;
}

namespace {

constexpr int kSoftwareVersion = 128;

class SystemInfo : public testing::Test
{
protected:
    void SetUp() override { unsetenv("JOURNAL_STREAM"); }

    static std::string softwareVersion()
    {
        char* value = nullptr;
        EXPECT_EQ(system_info_get_value_string(kSoftwareVersion, &value), 0);
        const std::string text = value != nullptr ? value : "";
        std::free(value);
        return text;
    }

    void expectRefused(int key, const char* reason)
    {
        char untouched = 'x';
        char* value = &untouched;
        captured.clear();
        EXPECT_EQ(system_info_get_value_string(key, &value), -1);
        EXPECT_EQ(value, &untouched);
        expectTexts(captured.lines(), {like(std::string("QUILLON-PLATFORM E *") + reason + "*")});
    }

    CapturedStderr captured;
};

TEST_F(SystemInfo, JoinsTheImagesModelAndVersion)
{
    osRelease() = {
        {"ID", "distro"}, {"VERSION_ID", "12"}, {"IMAGE_ID", "cooker"}, {"IMAGE_VERSION", "4.5"}};
    EXPECT_EQ(softwareVersion(), "cooker-4.5");
}

TEST_F(SystemInfo, TakesTheDistributionWhereNoImageIsNamed)
{
    osRelease() = {{"ID", "distro"}, {"VERSION_ID", "12"}};
    EXPECT_EQ(softwareVersion(), "distro-12");
}

TEST_F(SystemInfo, TakesAnEmptyEntryForAMissingOne)
{
    osRelease() = {{"ID", "distro"}, {"VERSION_ID", "12"}, {"IMAGE_ID", ""}, {"IMAGE_VERSION", ""}};
    EXPECT_EQ(softwareVersion(), "distro-12");
}

TEST_F(SystemInfo, FailsWithoutAVersion)
{
    osRelease() = {{"ID", "distro"}};
    expectRefused(kSoftwareVersion, "neither IMAGE_VERSION nor VERSION_ID");
    osRelease() = {{"ID", "distro"}, {"VERSION_ID", ""}};
    expectRefused(kSoftwareVersion, "neither IMAGE_VERSION nor VERSION_ID");
}

TEST_F(SystemInfo, FailsWithoutAModel)
{
    osRelease() = {{"VERSION_ID", "12"}};
    expectRefused(kSoftwareVersion, "neither IMAGE_ID nor ID");
}

TEST_F(SystemInfo, KnowsNoOtherKey)
{
    osRelease() = {{"ID", "distro"}, {"VERSION_ID", "12"}};
    for (const int key : {-1, 0, 127, 129}) {
        expectRefused(key, (std::to_string(key) + " is not known").c_str());
    }
}

TEST_F(SystemInfo, NeedsAPlaceForTheValue)
{
    EXPECT_EQ(system_info_get_value_string(kSoftwareVersion, nullptr), -1);
}

}  // namespace
