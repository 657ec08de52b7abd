// The examples' side of the contract: what they export and how they are named.

#include <gmock/gmock.h>

#include <sstream>

#include "support/process.h"
#include "support/texts.h"
#include "unit/examples/example-module.h"

using ::testing::HasSubstr;

extern "C" unsigned long contractSizes(void);  // compiled as C11

namespace quillon::test {
namespace {

std::vector<std::string> exportedBy(const std::string& library)
{
    const std::string command = std::string(NM_PROGRAM) + " -D --defined-only '" + library + "'";
    std::vector<std::string> symbols;
    std::istringstream lines(outputOf(command));
    for (std::string line; std::getline(lines, line);) {
        symbols.push_back(line.substr(line.rfind(' ') + 1));
    }
    return symbols;
}

TEST_P(FirmwareModules, ExportTheNineEntriesAndNothingElse)
{
    expectTextsInAnyOrder(
        exportedBy(module.library),
        {"setContext", "getEMPID", "getActiveVersion", "checkVersion", "doUpdate", "allUpdateDone",
         "doUpdate_decryption", "getExpectedTime", "getUpdateProgress"});
}

TEST_P(FirmwareModules, AreNamedByTheirIdentifierWithoutEmp)
{
    char buffer[FW_PLUGIN_TEXT_SIZE] = {};
    ASSERT_EQ(CALL(module, getEMPID)(buffer), 0);
    std::string identifier = buffer;
    ASSERT_THAT(identifier, HasSubstr("emp"));

    EXPECT_EQ(identifier.erase(identifier.find("emp"), 3), module.name);
}

TEST_P(FirmwareModules, TakeAnyCallerAndTheEndOfARun)
{
    char argument[] = "";
    for (int caller = CALLER_STICK; caller <= CALLER_SYSTEM_3; ++caller) {
        EXPECT_EQ(CALL(module, setContext)(module.name.c_str(), static_cast<CallerTypes>(caller),
                                           argument),
                  0);
    }
    EXPECT_EQ(CALL(module, allUpdateDone)(), 0);
}

INSTANTIATE_TEST_SUITE_P(Contract, FirmwareModules, kFirmwareModules, nameOf);

TEST(ProcessModule, ExportsTheRequiredEntriesAndNothingElse)
{
    expectTextsInAnyOrder(
        exportedBy(MODULES "EXT-selftest.so"),
        {"setContext", "getEMPID", "getActiveVersion", "checkVersion", "doUpdate"});
}

TEST(ContractInC, HasTheSameSizesAsInCpp)
{
    EXPECT_EQ(contractSizes(), 9 * sizeof(void*) + 284 + sizeof(CallerTypes));
}

}  // namespace
}  // namespace quillon::test
