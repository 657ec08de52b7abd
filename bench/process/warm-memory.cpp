#include "process/warm-memory.h"

#include <sys/mman.h>

namespace quillon::bench {

void warmMemory(std::size_t bytes)
{
    constexpr std::size_t kPage = 4096;
    void* memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        return;  // then it stays as cold as it is
    }
    static_cast<void>(madvise(memory, bytes, MADV_HUGEPAGE));
    auto* touched = static_cast<volatile unsigned char*>(memory);
    for (std::size_t at = 0; at < bytes; at += kPage) {
        touched[at] = 1;
    }
    munmap(memory, bytes);
}

}  // namespace quillon::bench
