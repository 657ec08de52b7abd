#include "update-workers.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <system_error>

namespace quillon {

namespace {

constexpr std::size_t kThreadNameLength = 15;

}  // namespace

std::set<std::string> threadNames()
{
    std::set<std::string> names;
    const std::string mainThread = std::to_string(getpid());
    std::error_code error;
    std::filesystem::directory_iterator threads("/proc/self/task", error);
    for (; !error && threads != std::filesystem::directory_iterator(); threads.increment(error)) {
        if (threads->path().filename() == mainThread) {
            continue;
        }
        std::ifstream file(threads->path() / "comm");
        std::string name;
        if (std::getline(file, name)) {  // a thread may end meanwhile
            names.insert(name);
        }
    }
    return names;
}

std::string asThreadName(const std::string& name)
{
    return name.substr(0, kThreadNameLength);
}

}  // namespace quillon
