#pragma once

#include <cstddef>
#include <cstring>
#include <memory>
#include <vector>

namespace quillon {

/// Allocates as usual and wipes what it gives back, so that keys do not stay in freed memory.
template <typename T>
struct WipingAllocator
{
    using value_type = T;
    WipingAllocator() = default;
    template <typename U>
    explicit WipingAllocator(const WipingAllocator<U>&)
    {
    }
    T* allocate(std::size_t count) { return std::allocator<T>().allocate(count); }
    void deallocate(T* memory, std::size_t count)
    {
        explicit_bzero(memory, count * sizeof(T));
        std::allocator<T>().deallocate(memory, count);
    }
    bool operator==(const WipingAllocator&) const { return true; }
    bool operator!=(const WipingAllocator&) const { return false; }
};

using SecretBytes = std::vector<unsigned char, WipingAllocator<unsigned char>>;

}  // namespace quillon
