#include "gate/hot-paths.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>

#include "base/fd.h"
#include "base/handles.h"
#include "base/regular-file.h"
#include "process/device.h"
#include "process/text-file.h"
#include "quillon-service.h"
#include "src/fw-update-mqueue-manager.h"
#include "src/fw-update-symbol-manager.h"
#include "support/checksum-folding.h"
#include "support/checksum-slicing.h"

namespace fs = std::filesystem;

namespace quillon::bench {
namespace {

constexpr std::size_t kMebibyte = 1U << 20U;
constexpr std::size_t kSmallImage = 65536;
constexpr std::size_t kIv = 16;
constexpr std::size_t kTrailer = 534;
constexpr int kQuestions = FW_MQ_MAX_MESSAGES - 1;
constexpr int kRegistryModules = 10;

constexpr const char* kStick = "/opt/media/USBDriveA/";
constexpr const char* kInformation = "/tmp/info.json";
constexpr const unsigned char kKey[] = "30313233343536373839616263646566";

void require(bool worked, const char* what)
{
    if (!worked) {
        throw std::runtime_error(what);
    }
}

/// Bytes that are neither all the same nor different each time.
std::string somePayload(std::size_t size)
{
    std::string bytes(size, '\0');
    std::uint32_t state = 1;
    for (char& byte : bytes) {
        state = state * 1664525U + 1013904223U;
        byte = static_cast<char>(state >> 24U);
    }
    return bytes;
}

/// An image as it lies on a stick, but for its signature.
std::string imageOf(const std::string& payload)
{
    std::string plain(FW_PLUGIN_HEADER_SIZE, '\0');
    plain.replace(0, 3, "2.0");
    plain += payload;
    const auto length = plain.size();
    plain.append(kTrailer, 'T');

    const UniqueFile stream(fmemopen(plain.data(), plain.size(), "rb"));
    const std::string iv(kIv, 'I');
    int size = 0;
    // Enciphering adds up to a block, for which the count must leave room.
    const UniqueMemory<unsigned char> enciphered(
        aes_256_cbc_all(stream.get(), kKey, reinterpret_cast<const unsigned char*>(iv.data()), 1,
                        static_cast<int>(plain.size()), size));
    require(enciphered != nullptr && static_cast<std::size_t>(size) > length, "no image");
    return iv +
           std::string(reinterpret_cast<const char*>(enciphered.get()),
                       static_cast<std::size_t>(size)) +
           std::string(kTrailer, 'S');
}

void putImage(std::size_t size)
{
    fs::create_directories(kStick);
    writeFile(kStick + moduleName(1) + ".bin", imageOf(somePayload(size)));
}

void decipher()
{
    struct stat opened = {};
    const UniqueFile file = openRegularStream(kStick + moduleName(1) + ".bin", opened);
    require(file != nullptr, "no image");
    std::array<unsigned char, kIv> iv{};
    require(std::fread(iv.data(), 1, iv.size(), file.get()) == iv.size(), "no image");
    int size = 0;
    const UniqueMemory<unsigned char> data(
        aes_256_cbc_all(file.get(), kKey, iv.data(), 0,
                        static_cast<int>(opened.st_size) - static_cast<int>(kIv), size));
    require(data != nullptr && static_cast<std::size_t>(size) >= kMebibyte, "not deciphered");
}

using Checksum = std::uint32_t(std::uint32_t, const unsigned char*, std::size_t);

HotPath checksumPath(const std::string& name, Checksum* checksum)
{
    const auto data = std::make_shared<std::string>(somePayload(kMebibyte));
    const auto run = [data, checksum] {
        require(
            checksum(0, reinterpret_cast<const unsigned char*>(data->data()), data->size()) != 0,
            "no checksum");
    };
    return {name, run, run};
}

/// As many questions as a queue holds, and the record that ends the control task.
void fillQueue()
{
    FWUpdateMQManager* queues = FWUpdateMQManager::getInstance();
    require(queues->setMQName("usb") && queues->getIsReady(true), "no queues");
    MQData question{};
    question.command = MQ_COMMAND_PROGRESS;
    question.kind = FW_MQ_KIND;
    for (int i = 0; i < kQuestions; ++i) {
        require(queues->sendToService(&question) == 0, "no question");
    }
    question.command = MQ_COMMAND_STOP;
    require(queues->sendToService(&question) == 0, "no question");
}

HotPath estimatePath(const std::string& tinyModule)
{
    const auto module = std::make_shared<FWUpdateSymbol>(moduleName(1));
    const auto run = [module] {
        require(module->getNeedUpdateList(kKey, kStick) == 0, "no estimate");
    };
    const auto prepare = [module, run, tinyModule] {
        installModules(tinyModule, 1);
        putImage(kSmallImage);
        require(module->loadSymbol(moduleName(1)) == 0, "no module");
        run();
    };
    return {"estimate of 64 KiB", prepare, run};
}

HotPath informationPath()
{
    const auto module = std::make_shared<FWUpdateSymbol>(moduleName(1));
    const auto run = [module] {
        require(module->loadInformation(kInformation), "no information file");
    };
    const auto prepare = [run] {
        writeFile(kInformation, R"({"version": "1.2.3", "crc": 305419896, "expected_time": 30})");
        run();
    };
    return {"info.json", prepare, run};
}

HotPath registryPath(const std::string& tinyModule)
{
    return {"registry of 10 modules",
            [tinyModule] { installModules(tinyModule, kRegistryModules); },
            [] {
                FWUpdateSymbolManager* manager = FWUpdateSymbolManager::getInstance();
                require(manager->getIsReady(true) && manager->modules().size() == kRegistryModules,
                        "no registry");
            }};
}

}  // namespace

std::vector<HotPath> hotPaths(const std::string& tinyModule)
{
    return {checksumPath("checksum by folding, 1 MiB", checksumByFolding),
            checksumPath("checksum by slicing, 1 MiB", checksumBySlicing),
            {"deciphering 1 MiB",
             [] {
                 putImage(kMebibyte);
                 decipher();
             },
             decipher},
            estimatePath(tinyModule),
            {"nine questions of command 6", fillQueue,
             [] { require(firmware_control_task() == 0, "no answers"); }},
            informationPath(),
            registryPath(tinyModule)};
}

}  // namespace quillon::bench
