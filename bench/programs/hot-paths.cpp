// Runs the hot path that its argument names, to be counted: its instructions under callgrind, or
// emulated by guest-instructions.cpp, and here its allocations, which it prints. Works within a
// virtual device whose plug-in directory and stick have been filled, with an image of 1 MiB for the
// first module and one of 64 KiB for the second. Without an argument it prints the names.
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "base/handles.h"
#include "base/regular-file.h"
#include "quillon-service.h"
#include "src/fw-update-mqueue-manager.h"
#include "src/fw-update-symbol-manager.h"
#include "support/checksum-folding.h"
#include "support/checksum-slicing.h"

#ifdef __x86_64__
#include <valgrind/callgrind.h>
#else
#define CALLGRIND_TOGGLE_COLLECT static_cast<void>(syscall(100000))
#endif

extern "C" {
// The C library's own, behind those that count.
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);

static bool isCounting = false;
static std::uint64_t allocations = 0;

void* malloc(std::size_t size)
{
    allocations += isCounting ? 1 : 0;
    return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size)
{
    allocations += isCounting ? 1 : 0;
    return __libc_calloc(count, size);
}

void* realloc(void* memory, std::size_t size)
{
    allocations += isCounting ? 1 : 0;
    return __libc_realloc(memory, size);
}

// The platform of the counted paths, the same on every machine. It formats log lines, since the
// service waits for that on any platform; the linker makes every other call the other one.
int __dlog_print(int /*buffer*/, int /*priority*/, const char* /*tag*/, const char* format, ...)
{
    char line[1024];
    va_list arguments;
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)  va_start has set it
    const int length = vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    return length;
}

int quillonBenchSilent()
{
    return 0;
}
}  // extern "C"

namespace quillon::bench {
namespace {

constexpr std::size_t kMebibyte = 1U << 20U;
constexpr std::size_t kIv = 16;
constexpr const char* kSmall = "module0002";
constexpr const char* kStick = "/opt/media/USBDriveA1/";
constexpr const unsigned char kKey[] = "30313233343536373839616263646566";

void require(bool worked, const char* what)
{
    if (!worked) {
        static_cast<void>(std::fprintf(stderr, "hot-paths: %s\n", what));
        std::exit(1);
    }
}

void decipher()
{
    struct stat opened = {};
    const UniqueFile file = openRegularStream(std::string(kStick) + "module0001.bin", opened);
    std::array<unsigned char, kIv> iv{};
    require(file && std::fread(iv.data(), 1, iv.size(), file.get()) == iv.size(), "no image");
    int size = 0;
    const UniqueMemory<unsigned char> data(
        aes_256_cbc_all(file.get(), kKey, iv.data(), 0,
                        static_cast<int>(opened.st_size) - static_cast<int>(kIv), size));
    require(data != nullptr && static_cast<std::size_t>(size) >= kMebibyte, "not deciphered");
}

template <std::uint32_t (*checksum)(std::uint32_t, const unsigned char*, std::size_t)>
void sum()
{
    static const std::vector<unsigned char> data(kMebibyte, 'Q');
    require(checksum(0, data.data(), data.size()) != 0, "no checksum");
}

/// As many questions as a queue holds, and the record that ends the control task.
void fillQueue()
{
    FWUpdateMQManager* queues = FWUpdateMQManager::getInstance();
    require(queues->setMQName("usb") && queues->getIsReady(true), "no queues");
    MQData question{};
    question.kind = FW_MQ_KIND;
    for (int i = 1; i <= FW_MQ_MAX_MESSAGES; ++i) {
        question.command = i < FW_MQ_MAX_MESSAGES ? MQ_COMMAND_PROGRESS : MQ_COMMAND_STOP;
        require(queues->sendToService(&question) == 0, "no question");
    }
}

void answer()
{
    require(firmware_control_task() == 0, "no answers");
}

FWUpdateSymbol& smallModule()
{
    static FWUpdateSymbol module(kSmall);
    static const bool isLoaded = module.loadSymbol(kSmall) == 0;
    require(isLoaded, "no module");
    return module;
}

void estimate()
{
    require(smallModule().getNeedUpdateList(kKey, kStick) == 0, "no estimate");
}

void loadInformation()
{
    require(smallModule().loadInformation("/tmp/info.json"), "no information file");
}

void fillRegistry()
{
    FWUpdateSymbolManager* manager = FWUpdateSymbolManager::getInstance();
    require(manager->getIsReady(true) && manager->modules().size() == 10, "no registry");
}

/// Something that the service does often, or that everybody waits for. Works once in a process.
struct HotPath
{
    const char* name;
    void (*prepare)();  ///< not counted; also does what happens once in a process
    void (*run)();      ///< counted; ends the process when it does not work
};

void decipherTwice()
{
    decipher();
    decipher();  // from here on, the memory is had from the heap and is not fresh
}

constexpr HotPath kPaths[] = {
    {"checksum by folding, 1 MiB", sum<checksumByFolding>, sum<checksumByFolding>},
    {"checksum by slicing, 1 MiB", sum<checksumBySlicing>, sum<checksumBySlicing>},
    {"deciphering 1 MiB", decipherTwice, decipher},
    {"estimate of 64 KiB", estimate, estimate},
    {"nine questions of command 6", fillQueue, answer},
    {"info.json", loadInformation, loadInformation},
    {"registry of 10 modules", [] {}, fillRegistry}};

}  // namespace
}  // namespace quillon::bench

int main(int argumentCount, char* arguments[])
{
    const std::string name = argumentCount == 2 ? arguments[1] : "";
    for (const auto& path : quillon::bench::kPaths) {
        if (name.empty()) {
            static_cast<void>(std::printf("%s\n", path.name));
        } else if (name == path.name) {
            path.prepare();
            isCounting = true;
            CALLGRIND_TOGGLE_COLLECT;
            path.run();
            CALLGRIND_TOGGLE_COLLECT;
            isCounting = false;
            static_cast<void>(
                std::printf("allocations %llu\n", static_cast<unsigned long long>(allocations)));
        }
    }
    return 0;
}
