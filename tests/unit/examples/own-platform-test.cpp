// The example of a device's own platform library: complete, and true to the headers.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <sstream>
#include <string>

#include "platform/app-binary-manager.h"
#include "platform/events.h"
#include "platform/log.h"
#include "platform/power.h"
#include "platform/privileged.h"
#include "platform/secure-storage.h"
#include "platform/system-info.h"
#include "platform/watchdog.h"
#include "support/files.h"
#include "support/process.h"
#include "support/texts.h"
#include "unit/platform/captured-stderr.h"
#include "unit/platform/running-library.h"

namespace {

using quillon::test::expectTexts;
using quillon::test::like;
using quillon::test::outputOf;
using quillon::test::writeFile;

namespace fs = std::filesystem;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr char kKey[] = DEVICE_KEYS "/quillon";
constexpr char kEvent[] = "/tmp/.fw_service_ready_usb";
constexpr int kMissing = 5;

/// The names in nm's list of a file's dynamic symbols, without parameters.
std::set<std::string> symbols(const std::string& which, const std::string& file)
{
    std::istringstream lines(
        outputOf(std::string(NM_PROGRAM " -D -C --format=posix ") + which + " '" + file + "'"));
    std::set<std::string> names;
    for (std::string line; std::getline(lines, line);) {
        names.insert(line.substr(0, line.find_first_of(" (@")));
    }
    return names;
}

/// What ss_read gives; its result where that is not 0.
std::string readItem(const char* item)
{
    ss_credential credential = {};
    EXPECT_EQ(ss_init_credential(&credential, 1, 2, 3, 4, 5, 1, 0), 0);
    unsigned char* data = nullptr;
    std::size_t size = 0;
    const int result = ss_read(&data, &size, 0, 0, item, &credential, 33);
    if (result != 0) {
        EXPECT_EQ(data, nullptr);
        return "result " + std::to_string(result);
    }
    std::string bytes(reinterpret_cast<const char*>(data), size);
    ss_free_buffer(data);
    return bytes;
}

class OwnPlatform : public ::testing::Test
{
protected:
    void SetUp() override { TearDown(); }
    void TearDown() override
    {
        fs::remove_all(DEVICE_KEYS);
        fs::remove_all(DEVICE_VERSION_FILE);
        fs::remove_all(kEvent);
    }

    CapturedStderr log;
};

TEST_F(OwnPlatform, DefinesEveryCallThatTheServiceLeavesToItsPlatform)
{
    const std::set<std::string> provided = symbols("--defined-only", runningLibrary().path);
    const std::set<std::string> stock = symbols("--defined-only", STOCK_PLATFORM);
    std::set<std::string> needed;
    for (const std::string& name : symbols("--undefined-only", SERVICE_PROGRAM)) {
        if (stock.count(name) != 0) {
            needed.insert(name);
        }
    }
    EXPECT_THAT(needed, Not(IsEmpty()));
    for (const std::string& name : needed) {
        EXPECT_EQ(provided.count(name), 1U) << name << " is missing";
    }
    EXPECT_EQ(provided, stock)
        << "every call of the headers, and nothing that could meet a module's";
}

TEST_F(OwnPlatform, WritesEachMessageAsOneLineWhateverItHolds)
{
    errno = ENOENT;
    // __extension__ because "%m" is the C library's own, which -Wpedantic minds.
    const int result = __extension__ __dlog_print(
        2, 6, "FWUPDATE", "%s: %s(%d) > forged\nline: %m\n", "a.cpp", "f", 7);
    EXPECT_GE(result, 0);
    expectTexts(log.lines(),
                {like("*]: FWUPDATE: a.cpp: f(7) > forged line: No such file or directory ")});
}

TEST_F(OwnPlatform, ReadsTheKeyFromItsFile)
{
    const std::string key("\0\x01key\xff", 6);
    writeFile(kKey, key);
    EXPECT_EQ(readItem("quillon"), key);
    expectTexts(log.lines(), {});
}

TEST_F(OwnPlatform, AnswersFiveOnlyWhereThereIsNoSuchItem)
{
    EXPECT_EQ(readItem("quillon"), "result " + std::to_string(kMissing));
    expectTexts(log.lines(), {});
}

TEST_F(OwnPlatform, RefusesWhatIsNoFileWithAKey)
{
    writeFile(DEVICE_KEYS "/elsewhere", "key");
    writeFile(DEVICE_KEYS "/empty", "");
    writeFile(DEVICE_KEYS "/large", std::string(4097, 'x'));
    fs::create_directory(DEVICE_KEYS "/directory");
    fs::create_symlink("elsewhere", DEVICE_KEYS "/link");
    ASSERT_EQ(mkfifo(DEVICE_KEYS "/fifo", 0600), 0);
    for (const char* item :
         {"empty", "large", "directory", "link", "fifo", "", ".", "../keys/elsewhere"}) {
        EXPECT_EQ(readItem(item), "result 1") << item;
    }
}

TEST_F(OwnPlatform, ReadsTheLargestItemWhole)
{
    const std::string largest(4096, 'k');
    writeFile(kKey, largest);
    EXPECT_EQ(readItem("quillon"), largest);
}

TEST_F(OwnPlatform, InstallsNoProvisioningPackagesAndSaysSo)
{
    const int result = sdp_install_from_file("/package", 2, 0);
    EXPECT_NE(result & ~2, 0) << "the service clears bit 1 and must still see a failure";
    expectTexts(log.lines(),
                {like("*DEVICE: /package: this device installs no provisioning packages")});
}

TEST_F(OwnPlatform, RaisesAnEventAsANewFileThatHasNothingToDoWithWhatWasThere)
{
    writeFile(DEVICE_KEYS "/victim", "untouched");
    fs::create_symlink(DEVICE_KEYS "/victim", kEvent);
    EXPECT_EQ(LwipcEventDone(kEvent), 0);
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(kEvent)));
    EXPECT_TRUE(fs::is_empty(kEvent));
    EXPECT_EQ(LwipcEventDone(kEvent), 0) << "raised once more";
    EXPECT_EQ(fs::file_size(DEVICE_KEYS "/victim"), 9U);
}

TEST_F(OwnPlatform, TellsWhyAnEventCouldNotBeRaised)
{
    errno = 0;
    EXPECT_NE(LwipcEventDone("relative"), 0);
    EXPECT_EQ(errno, EINVAL);
    fs::create_directory(kEvent);
    EXPECT_NE(LwipcEventDone(kEvent), 0);
    EXPECT_EQ(errno, EISDIR);
}

TEST_F(OwnPlatform, TakesTheSoftwareVersionFromTheFirstLineOfItsFile)
{
    char* value = nullptr;
    EXPECT_NE(system_info_get_value_string(128, &value), 0) << "there is no file yet";
    writeFile(DEVICE_VERSION_FILE, "BOARD-3.1\nbuilt today\n");
    ASSERT_EQ(system_info_get_value_string(128, &value), 0);
    EXPECT_STREQ(value, "BOARD-3.1");
    std::free(value);
    EXPECT_NE(system_info_get_value_string(127, &value), 0);
}

TEST_F(OwnPlatform, LocksThePowerForALengthOfTimeOnly)
{
    EXPECT_EQ(device_power_lock_state(2, 1000), 0);
    EXPECT_NE(device_power_lock_state(2, 0), 0);
    EXPECT_EQ(device_power_unlock_state(2), 0);
}

TEST_F(OwnPlatform, TakesAMissingWatchdogForNoFailure)
{
    EXPECT_EQ(smart_deadlock_register_watchdog_service(60), 0);
    EXPECT_EQ(smart_deadlock_watchdog_notify(), 0);
    EXPECT_EQ(smart_deadlock_unregister_watchdog_service(), 0);
}

TEST_F(OwnPlatform, RefusesPackagesAndSaysSo)
{
    for (const auto call : {PS_Mount, PS_Mknod, PS_Umount}) {
        int result = 0;
        EXPECT_NE(call("anything", 9, 0, &result), 0);
        EXPECT_NE(result, 0);
        EXPECT_NE(call("anything", 9, 0, nullptr), 0);
    }
    EXPECT_FALSE(appbinaryManager::ABM_DownloadAppBinary(nullptr, nullptr, "lampemp"));
    EXPECT_EQ(log.lines().size(), 7U);
}

}  // namespace
