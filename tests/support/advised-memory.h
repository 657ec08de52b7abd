#ifndef QUILLON_TESTS_SUPPORT_ADVISED_MEMORY_H
#define QUILLON_TESTS_SUPPORT_ADVISED_MEMORY_H

#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>

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

}  // namespace quillon::test

#endif
