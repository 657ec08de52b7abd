#ifndef QUILLON_TESTS_UNIT_PLATFORM_RUNNING_LIBRARY_H
#define QUILLON_TESTS_UNIT_PLATFORM_RUNNING_LIBRARY_H

#include <cstdint>
#include <string>

/// The platform library that this very process has loaded.
struct RunningLibrary
{
    std::string path;
    std::uintptr_t base;
};

RunningLibrary runningLibrary();

#endif
