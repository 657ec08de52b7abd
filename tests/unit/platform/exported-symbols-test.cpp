#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "running-library.h"
#include "support/process.h"
#include "support/texts.h"

namespace {

using quillon::test::expectTextsInAnyOrder;
using quillon::test::outputOf;

std::vector<std::string> exportedSymbols()
{
    std::istringstream lines(outputOf("nm -DC --defined-only '" + runningLibrary().path + "'"));
    std::vector<std::string> names;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string address;
        std::string kind;
        std::string name;
        words >> address >> kind;
        std::getline(words >> std::ws, name, '(');
        names.push_back(name);
    }
    return names;
}

TEST(ExportedSymbols, AreThePlatformsCallsAndNothingElse)
{
    expectTextsInAnyOrder(
        exportedSymbols(),
        {"__dlog_print", "trace_logger_write", "system_info_get_value_string",
         "device_power_lock_state", "device_power_unlock_state", "ss_init_credential", "ss_read",
         "ss_free_buffer", "sdp_install_from_file", "LwipcEventDone",
         "smart_deadlock_register_watchdog_service", "smart_deadlock_watchdog_notify",
         "smart_deadlock_unregister_watchdog_service", "PS_Mount", "PS_Mknod", "PS_Umount",
         "appbinaryManager::ABM_DownloadAppBinary"});
}

TEST(ExportedSymbols, AllHaveOneSonameThatADeviceCanReplace)
{
    EXPECT_THAT(outputOf("readelf -d '" + runningLibrary().path + "'"),
                testing::ContainsRegex("SONAME.*libquillon-platform(-bare)?\\.so\\.0\\]"));
}

}  // namespace
