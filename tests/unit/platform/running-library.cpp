#include "running-library.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdio>

RunningLibrary runningLibrary()
{
    Dl_info info = {};
    if (dladdr(dlsym(RTLD_DEFAULT, "LwipcEventDone"), &info) == 0) {
        ADD_FAILURE() << "the platform library is not loaded";
        return {"", 0};
    }
    return {info.dli_fname, reinterpret_cast<std::uintptr_t>(info.dli_fbase)};
}
