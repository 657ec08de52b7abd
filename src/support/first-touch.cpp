#include "support/first-touch.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace quillon {
namespace {

constexpr std::uintptr_t kHugePage = 2U << 20U;

#ifdef MADV_POPULATE_WRITE
constexpr int kPopulate = MADV_POPULATE_WRITE;
#else
constexpr int kPopulate = 23;  // the C library's headers may be older than the kernel
#endif

std::uintptr_t roundedUp(std::uintptr_t address, std::uintptr_t page)
{
    return (address + page - 1) & ~(page - 1);
}

std::uintptr_t roundedDown(std::uintptr_t address, std::uintptr_t page)
{
    return address & ~(page - 1);
}

/// From one address to the other; nothing when there is nothing between them.
void advise(std::uintptr_t first, std::uintptr_t end, int advice)
{
    if (first < end) {
        static_cast<void>(madvise(reinterpret_cast<void*>(first), end - first, advice));
    }
}

}  // namespace

void easeFirstTouch(void* memory, std::size_t size)
{
    const auto address = reinterpret_cast<std::uintptr_t>(memory);
    const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    const std::uintptr_t first = roundedUp(address, page);
    const std::uintptr_t end = roundedDown(address + size, page);
    const std::uintptr_t firstHuge = roundedUp(address, kHugePage);
    const std::uintptr_t endHuge = roundedDown(address + size, kHugePage);
    const int callersErrno = errno;
    if (firstHuge < endHuge) {
        advise(firstHuge, endHuge, MADV_HUGEPAGE);
        advise(first, firstHuge, kPopulate);
        advise(endHuge, end, kPopulate);
    } else {
        advise(first, end, kPopulate);
    }
    errno = callersErrno;
}

}  // namespace quillon
