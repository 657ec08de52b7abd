#include "process/device.h"

#include <mqueue.h>
#include <semaphore.h>

#include <cstdlib>
#include <filesystem>
#include <iomanip>
#include <sstream>
#include <stdexcept>

#include "process/text-file.h"

namespace fs = std::filesystem;

namespace quillon::bench {
namespace {

constexpr const char* kModules = "/usr/fwupdate/controls/";
constexpr const char* kKeyFolder = "/var/lib/quillon/secure-storage";
constexpr const char* kReadyEvent = "/tmp/.fw_service_ready_usb";
constexpr const char* kBootMarkers[] = {"/tmp/smack_early_ready", "/tmp/fw_update_ready_usb"};
constexpr const char* kQueues[] = {"/fwupdateservice_usb", "/fwupdatecontrol_usb"};
constexpr const char* kSemaphore = "/SEM_UPDATE_CONTROL";

void requireDevice()
{
    if (std::getenv("QUILLON_DEVICE") == nullptr) {
        throw std::runtime_error("this works in a virtual device only: quillon-device run");
    }
}

}  // namespace

std::string moduleName(int number)
{
    std::ostringstream name;
    name << "module" << std::setw(4) << std::setfill('0') << number;
    return name.str();
}

void bootDevice()
{
    requireDevice();
    for (const char* marker : kBootMarkers) {
        writeFile(marker, "");
    }
    fs::create_directories(kKeyFolder);
    fs::permissions(kKeyFolder, fs::perms::owner_all);
    const fs::path key = fs::path(kKeyFolder) / "quillon";
    writeFile(key, "0123456789abcdef");
    fs::permissions(key, fs::perms::owner_read | fs::perms::owner_write);
}

void installModules(const std::string& module, int count)
{
    requireDevice();
    for (const auto& entry : fs::directory_iterator(kModules)) {
        fs::remove(entry);
    }
    for (int number = 1; number <= count; ++number) {
        fs::copy_file(module, kModules + moduleName(number) + ".so");
    }
}

void forgetEarlierService()
{
    requireDevice();
    for (const char* queue : kQueues) {
        static_cast<void>(mq_unlink(queue));  // what is not there need not be removed
    }
    static_cast<void>(sem_unlink(kSemaphore));
    fs::remove(kReadyEvent);
}

}  // namespace quillon::bench
