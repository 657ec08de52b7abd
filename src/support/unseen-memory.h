#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>

namespace quillon {

/// Memory that stays allocated, but that nobody will read again unless it is shown to somebody: its
/// whole pages go back to the kernel at the end of this object's life, and read as zeros from then
/// on. Source: madvise(2), MADV_DONTNEED. Thread: any. Keeps errno.
class UnseenMemory
{
public:
    /// @param memory  private memory of the process, for example of calloc
    /// @param size    in bytes
    UnseenMemory(void* memory, std::size_t size)
        : address_(reinterpret_cast<std::uintptr_t>(memory)), size_(size)
    {
    }

    ~UnseenMemory()
    {
        const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
        const std::uintptr_t first = (address_ + page - 1) / page * page;
        const std::uintptr_t end = (address_ + size_) / page * page;
        const int callersErrno = errno;
        if (!isShown_ && first < end) {
            madvise(reinterpret_cast<void*>(first), end - first, MADV_DONTNEED);
        }
        errno = callersErrno;
    }

    UnseenMemory(const UnseenMemory&) = delete;
    UnseenMemory& operator=(const UnseenMemory&) = delete;

    /// Somebody is about to see the memory, and may keep looking at it: it stays as it is.
    void show() { isShown_ = true; }

private:
    std::uintptr_t address_;
    std::size_t size_;
    bool isShown_ = false;
};

}  // namespace quillon
