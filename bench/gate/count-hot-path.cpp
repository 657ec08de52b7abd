// Runs one hot path, to be counted: under callgrind its instructions, and here its allocations.
//
// Usage: count-hot-path TINY-MODULE NAME | --list
// Prints "allocations N".
#include <valgrind/callgrind.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <stdexcept>

#include "gate/hot-paths.h"
#include "process/device.h"

// The C library's own, behind those that count.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
}

namespace {

bool isCounting = false;
std::uint64_t allocations = 0;

void countOne()
{
    if (isCounting) {
        ++allocations;
    }
}

}  // namespace

extern "C" void* malloc(std::size_t size)
{
    countOne();
    return __libc_malloc(size);
}

extern "C" void* calloc(std::size_t count, std::size_t size)
{
    countOne();
    return __libc_calloc(count, size);
}

extern "C" void* realloc(void* memory, std::size_t size)
{
    countOne();
    return __libc_realloc(memory, size);
}

namespace {

using quillon::bench::HotPath;

void count(const HotPath& path)
{
    quillon::bench::bootDevice();
    quillon::bench::forgetEarlierService();
    path.prepare();
    isCounting = true;
    CALLGRIND_TOGGLE_COLLECT;
    path.run();
    CALLGRIND_TOGGLE_COLLECT;
    isCounting = false;
    static_cast<void>(
        std::printf("allocations %llu\n", static_cast<unsigned long long>(allocations)));
}

int run(const char* tinyModule, const char* name)
{
    for (const HotPath& path : quillon::bench::hotPaths(tinyModule)) {
        if (path.name == name) {
            count(path);
            return 0;
        }
    }
    throw std::runtime_error("there is no such path");
}

int list()
{
    for (const HotPath& path : quillon::bench::hotPaths("")) {
        static_cast<void>(std::printf("%s\n", path.name.c_str()));
    }
    return 0;
}

}  // namespace

int main(int argumentCount, char* arguments[])
{
    try {
        if (argumentCount == 2 && std::strcmp(arguments[1], "--list") == 0) {
            return list();
        }
        if (argumentCount == 3) {
            return run(arguments[1], arguments[2]);
        }
        static_cast<void>(
            std::fputs("usage: count-hot-path TINY-MODULE NAME | count-hot-path --list\n", stderr));
        return 2;
    } catch (const std::exception& error) {
        static_cast<void>(std::fprintf(stderr, "count-hot-path: %s\n", error.what()));
        return 1;
    }
}
