#include "support/huge-pages.h"

#include <sys/mman.h>

#include <cerrno>
#include <cstdint>

namespace quillon {
namespace {

constexpr std::uintptr_t kHugePage = 2U << 20U;

}  // namespace

void adviseHugePages(void* memory, std::size_t size)
{
    const auto address = reinterpret_cast<std::uintptr_t>(memory);
    const std::uintptr_t first = (address + kHugePage - 1) & ~(kHugePage - 1);
    const std::uintptr_t end = (address + size) & ~(kHugePage - 1);
    if (end <= first) {
        return;
    }
    const int callersErrno = errno;
    static_cast<void>(
        madvise(static_cast<char*>(memory) + (first - address), end - first, MADV_HUGEPAGE));
    errno = callersErrno;
}

}  // namespace quillon
