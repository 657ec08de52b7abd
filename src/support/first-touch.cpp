#include "support/first-touch.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <exception>

#include "support/processors.h"

namespace quillon {
namespace {

constexpr std::uintptr_t kHugePage = 2U << 20U;

/// Below, starting a thread costs about what it saves.
constexpr std::uintptr_t kWorthAThread = 8U << 20U;

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
/// @return whether the kernel did it
bool advise(std::uintptr_t first, std::uintptr_t end, int advice)
{
    return first < end && madvise(reinterpret_cast<void*>(first), end - first, advice) == 0;
}

}  // namespace

EasedFirstTouch::EasedFirstTouch(void* memory, std::size_t size)
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
    if (size >= kWorthAThread && hasAnotherProcessor()) {
        try {
            // The first huge page is the writer's own: it is about to touch that one itself.
            ahead_ = std::thread([this, page = firstHuge + kHugePage, endHuge]() mutable {
                while (page < endHuge && !isOver_ && advise(page, page + kHugePage, kPopulate)) {
                    page += kHugePage;
                }
            });
        } catch (const std::exception&) {
            // Then every page is the writer's own.
        }
    }
    errno = callersErrno;
}

EasedFirstTouch::~EasedFirstTouch()
{
    isOver_ = true;
    if (ahead_.joinable()) {
        ahead_.join();
    }
}

}  // namespace quillon
