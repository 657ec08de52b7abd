#pragma once

#include <cstdint>
#include <string>

/// The platform library that this very process has loaded.
struct RunningLibrary
{
    std::string path;
    std::uintptr_t base;
};

RunningLibrary runningLibrary();
