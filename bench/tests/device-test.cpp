#include "process/device.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <mqueue.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "fw-update-plugin.h"

namespace fs = std::filesystem;

namespace quillon::bench {
namespace {

constexpr const char* kModules = "/usr/fwupdate/controls";
constexpr const char* kQueue = "/fwupdateservice_usb";
const std::string kTinyModule = BUILD_FOLDER "/bench/tiny-module.so";

std::vector<std::string> modules()
{
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(kModules)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

/// What a module answers that is called by its library name.
std::string identifierOf(const std::string& name)
{
    const std::string path = std::string(kModules) + "/" + name + ".so";
    void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        return dlerror();
    }
    const auto setContext = reinterpret_cast<decltype(&::setContext)>(dlsym(library, "setContext"));
    const auto getEMPID = reinterpret_cast<decltype(&::getEMPID)>(dlsym(library, "getEMPID"));
    char identifier[FW_PLUGIN_TEXT_SIZE] = {};
    char nothing[] = "";
    EXPECT_EQ(setContext(name.c_str(), CALLER_SERVICE, nothing), 0);
    EXPECT_EQ(getEMPID(identifier), 0);
    return identifier;
}

TEST(BenchDevice, HoldsAsManyModulesAsAskedFor)
{
    installModules(kTinyModule, 3);
    EXPECT_EQ(modules(),
              (std::vector<std::string>{"module0001.so", "module0002.so", "module0003.so"}));

    installModules(kTinyModule, 1);
    EXPECT_EQ(modules(), (std::vector<std::string>{"module0001.so"}));
}

TEST(BenchDevice, EachModuleHasAnIdentifierOfItsOwn)
{
    installModules(kTinyModule, 2);

    EXPECT_EQ(identifierOf("module0001"), "module0001emp");
    EXPECT_EQ(identifierOf("module0002"), "module0002emp");
    EXPECT_EQ(identifierOf("module0001"), "module0001emp");
}

TEST(BenchDevice, HasTheKeyInAFileThatOnlyItsOwnerReads)
{
    bootDevice();

    struct stat status = {};
    ASSERT_EQ(stat("/var/lib/quillon/secure-storage/quillon", &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
    EXPECT_TRUE(fs::exists("/tmp/smack_early_ready"));
    EXPECT_TRUE(fs::exists("/tmp/fw_update_ready_usb"));
}

TEST(BenchDevice, NothingOfAnEarlierServiceStays)
{
    const mqd_t queue = mq_open(kQueue, O_CREAT | O_RDWR, 0600, nullptr);
    ASSERT_NE(queue, -1);
    mq_close(queue);
    std::ofstream("/tmp/.fw_service_ready_usb").close();

    forgetEarlierService();

    EXPECT_EQ(mq_open(kQueue, O_RDWR), -1);
    EXPECT_FALSE(fs::exists("/tmp/.fw_service_ready_usb"));
}

TEST(BenchDevice, NothingIsTouchedOutsideOfAVirtualDevice)
{
    installModules(kTinyModule, 1);
    ASSERT_EQ(unsetenv("QUILLON_DEVICE"), 0);

    EXPECT_THROW(installModules(kTinyModule, 0), std::runtime_error);
    EXPECT_THROW(bootDevice(), std::runtime_error);
    EXPECT_THROW(forgetEarlierService(), std::runtime_error);

    EXPECT_EQ(modules().size(), 1U);
}

}  // namespace
}  // namespace quillon::bench
