// The control layer's `update --all` over so many modules, the argument, whose packages are there
// already and whose mounts are emulated. Works within a virtual device. Prints one JSON object:
// what it took, "seconds", and how much of it the modules' own entries did, "ownSeconds".
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "src/fw-update-symbol-manager.h"

static std::atomic<std::int64_t> ownNanoseconds{0};

/// What the modules tell about themselves.
extern "C" __attribute__((visibility("default"))) void quillonBenchOwnTime(std::int64_t nanoseconds)
{
    ownNanoseconds += nanoseconds;
}

/// What the linker makes every privileged call: a package's files are there already.
extern "C" int quillonBenchMount(const char* /*request*/, int /*size*/, int /*reserved*/,
                                 int* result)
{
    return *result = 0;
}

int main(int count, char* arguments[])
{
    using std::chrono::steady_clock;
    const int modules = count == 2 ? std::atoi(arguments[1]) : 0;
    FWUpdateSymbolManager* manager = FWUpdateSymbolManager::getInstance();
    const bool isReady = manager->getIsReady(true);
    ownNanoseconds = 0;
    bool running = true;
    const auto started = steady_clock::now();
    const int needed = manager->writeFirmwareUpdateList(running);
    const int result = manager->doUpdateFirmwareAll(CALLER_SERVICE);
    const std::chrono::duration<double> taken = steady_clock::now() - started;
    if (!isReady || needed != modules || result != 0) {
        static_cast<void>(std::fputs("many-modules: not all modules were updated\n", stderr));
        return 1;
    }
    static_cast<void>(std::printf("{\"seconds\": %.6f, \"ownSeconds\": %.6f}\n", taken.count(),
                                  static_cast<double>(ownNanoseconds.load()) / 1e9));
    return 0;
}
