// The control layer's `update --all` over many modules from packages whose mounts are emulated:
// checks all of them, then updates all of them, and says what that took and how much of it the
// modules' own entries did. Works within a virtual device.
//
// Usage: many-modules COUNT SINK-MODULE
// Prints one JSON object: "modules", "seconds" and "ownSeconds".
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "platform/privileged.h"
#include "process/device.h"
#include "process/text-file.h"
#include "src/fw-update-symbol-manager.h"
#include "support/checksum.h"
#include "support/paths.h"

namespace fs = std::filesystem;

namespace {

std::atomic<std::int64_t> ownNanoseconds{0};

}  // namespace

/// What the modules tell about themselves.
extern "C" __attribute__((visibility("default"))) void quillonBenchOwnTime(std::int64_t nanoseconds)
{
    ownNanoseconds += nanoseconds;
}

// A package is mounted as soon as it is asked for: its files are there.
int PS_Mount(const char* /*request*/, int /*size*/, int /*reserved*/, int* result)
{
    *result = 0;
    return 0;
}

int PS_Mknod(const char* /*request*/, int /*size*/, int /*reserved*/, int* result)
{
    *result = 0;
    return 0;
}

int PS_Umount(const char* /*directory*/, int /*length*/, int /*reserved*/, int* result)
{
    *result = 0;
    return 0;
}

namespace {

using std::chrono::steady_clock;

constexpr std::size_t kImageSize = 4096;

void putPackage(const std::string& name, const std::string& image, std::uint32_t crc)
{
    const fs::path mounted = quillon::paths::kMountedPackages + name + "emp";
    fs::create_directories(mounted);
    quillon::bench::writeFile(mounted / (name + ".bin"), image);
    quillon::bench::writeFile(
        mounted / "info.json",
        R"({"version": "2.0", "crc": )" + std::to_string(crc) + R"(, "expected_time": 1})");
    quillon::bench::writeFile(quillon::paths::kPackages + name + "emp.img", "");
}

double seconds(steady_clock::duration duration)
{
    return std::chrono::duration<double>(duration).count();
}

void run(int count, const std::string& sinkModule)
{
    quillon::bench::bootDevice();
    quillon::bench::installModules(sinkModule, count);
    const std::string image(kImageSize, 'Q');
    const std::uint32_t crc = quillon::imageChecksum(
        0, reinterpret_cast<const unsigned char*>(image.data()), image.size());
    for (int number = 1; number <= count; ++number) {
        putPackage(quillon::bench::moduleName(number), image, crc);
    }

    FWUpdateSymbolManager* manager = FWUpdateSymbolManager::getInstance();
    if (!manager->getIsReady(true)) {
        throw std::runtime_error("the registry cannot be filled");
    }
    ownNanoseconds = 0;
    bool running = true;
    const auto started = steady_clock::now();
    const int needed = manager->writeFirmwareUpdateList(running);
    const int result = manager->doUpdateFirmwareAll(CALLER_SERVICE);
    const auto taken = steady_clock::now() - started;
    if (needed != count || result != 0) {
        throw std::runtime_error("not all modules were updated");
    }
    static_cast<void>(std::printf("{\"modules\": %d, \"seconds\": %.6f, \"ownSeconds\": %.6f}\n",
                                  count, seconds(taken),
                                  static_cast<double>(ownNanoseconds.load()) / 1e9));
}

}  // namespace

int main(int count, char* arguments[])
{
    if (count != 3) {
        static_cast<void>(std::fputs("usage: many-modules COUNT SINK-MODULE\n", stderr));
        return 2;
    }
    try {
        run(std::atoi(arguments[1]), arguments[2]);
        return 0;
    } catch (const std::exception& error) {
        static_cast<void>(std::fprintf(stderr, "many-modules: %s\n", error.what()));
        return 1;
    }
}
