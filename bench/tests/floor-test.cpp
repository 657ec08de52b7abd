#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "process/device.h"
#include "process/ready-socket.h"
#include "process/started-process.h"

namespace quillon::bench {
namespace {

constexpr const char* kModules = "/usr/fwupdate/controls";
const std::string kDoNothing = BUILD_FOLDER "/bench/do-nothing";

/// The libraries that a program is linked with, as its file lists them. The dynamic linker, which
/// is in every process, is named by some linkers only.
std::vector<std::string> librariesOf(const std::string& program)
{
    std::vector<std::string> libraries;
    std::istringstream lines(outputOf({"readelf", "--dynamic", "--wide", program}));
    for (std::string line; std::getline(lines, line);) {
        if (line.find("(NEEDED)") != std::string::npos && line.find("[ld-") == std::string::npos) {
            libraries.push_back(line.substr(line.find('[')));
        }
    }
    return libraries;
}

TEST(Floor, IsLinkedWithTheLibrariesOfTheService)
{
    const std::vector<std::string> service = librariesOf(BUILD_FOLDER "/bin/quillon-service");

    EXPECT_THAT(service, ::testing::Not(::testing::IsEmpty()));
    EXPECT_THAT(librariesOf(kDoNothing), ::testing::UnorderedElementsAreArray(service));
}

TEST(Floor, OpensTheModulesOfTheFolderThatItIsGiven)
{
    installModules(BUILD_FOLDER "/bench/tiny-module.so", 2);
    ReadySocket socket;
    StartedProcess process({kDoNothing, kModules}, socket);
    process.waitUntilReady();

    const std::string maps = outputOf({"cat", "/proc/" + std::to_string(process.pid()) + "/maps"});

    EXPECT_THAT(maps, ::testing::HasSubstr("module0001.so"));
    EXPECT_THAT(maps, ::testing::HasSubstr("module0002.so"));
}

TEST(Floor, DoesNotBecomeReadyWithALibraryThatLacksEntries)
{
    installModules(BUILD_FOLDER "/bench/tiny-module.so", 1);
    outputOf({"cp", "/lib/" + outputOf({"sh", "-c", "cd /lib; printf %s */libm.so.6"}), kModules});
    ReadySocket socket;
    StartedProcess process({kDoNothing, kModules}, socket);

    EXPECT_THROW(process.waitUntilReady(), std::runtime_error);
}

}  // namespace
}  // namespace quillon::bench
