#include "support/failing-memory.h"

#include <cstdlib>
#include <new>

namespace {

thread_local int countdown = -1;  // negative: none fails
thread_local bool failsOn = false;
thread_local bool hasFailed = false;

void* allocated(std::size_t size)
{
    const bool fails = (hasFailed && failsOn) || (countdown >= 0 && countdown-- == 0);
    hasFailed = hasFailed || fails;
    void* memory = fails ? nullptr : std::malloc(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

}  // namespace

void* operator new(std::size_t size)
{
    return allocated(size);
}

void* operator new[](std::size_t size)
{
    return allocated(size);
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory, std::size_t /*size*/) noexcept
{
    std::free(memory);
}

namespace quillon::test {

void failAllocation(int number, Failing failing)
{
    countdown = number;
    failsOn = failing == Failing::kAllFromThere;
}

bool stopFailing()
{
    countdown = -1;
    failsOn = false;
    const bool result = hasFailed;
    hasFailed = false;
    return result;
}

}  // namespace quillon::test
