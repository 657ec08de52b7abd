#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace quillon::test {

/// @return whether the kernel notes for this address that huge pages were advised.
inline bool isAdvisedHuge(const void* address)
{
    std::ifstream maps("/proc/self/smaps");
    const auto wanted = reinterpret_cast<std::uintptr_t>(address);
    bool isWanted = false;
    for (std::string line; std::getline(maps, line);) {
        std::uintptr_t first = 0;
        std::uintptr_t end = 0;
        char dash = 0;
        std::istringstream words(line);
        if (words >> std::hex >> first >> dash >> end && dash == '-') {
            isWanted = first <= wanted && wanted < end;
        } else if (isWanted && line.rfind("VmFlags:", 0) == 0) {
            return (line + " ").find(" hg ") != std::string::npos;
        }
    }
    ADD_FAILURE() << "no such address";
    return false;
}

/// @return how many of the pages that hold these bytes are in memory.
inline std::size_t residentPages(const void* address, std::size_t size)
{
    const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    const std::uintptr_t first = reinterpret_cast<std::uintptr_t>(address) / page * page;
    const std::uintptr_t end = reinterpret_cast<std::uintptr_t>(address) + size;
    std::vector<unsigned char> pages((end - first + page - 1) / page);
    EXPECT_EQ(mincore(reinterpret_cast<void*>(first), end - first, pages.data()), 0);
    return static_cast<std::size_t>(std::count_if(
        pages.begin(), pages.end(), [](unsigned char state) { return (state & 1U) != 0; }));
}

}  // namespace quillon::test
