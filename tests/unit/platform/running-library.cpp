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

std::string outputOf(const std::string& command)
{
    std::string output;
    FILE* pipe = popen(command.c_str(), "re");
    if (pipe == nullptr) {
        ADD_FAILURE() << command << " cannot be started";
        return output;
    }
    char buffer[4096];
    for (std::size_t count = 0; (count = fread(buffer, 1, sizeof buffer, pipe)) > 0;) {
        output.append(buffer, count);
    }
    EXPECT_EQ(pclose(pipe), 0) << command;
    return output;
}
