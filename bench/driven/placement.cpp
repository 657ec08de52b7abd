#include "driven/placement.h"

#include <sched.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <system_error>

namespace quillon::bench {
namespace {

void allow(pid_t thread, const std::vector<int>& processors)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    for (const int processor : processors) {
        CPU_SET(static_cast<std::size_t>(processor), &set);
    }
    if (sched_setaffinity(thread, sizeof set, &set) != 0) {
        throw std::system_error(errno, std::generic_category(), "sched_setaffinity");
    }
}

}  // namespace

std::vector<int> processors()
{
    cpu_set_t set;
    CPU_ZERO(&set);
    static_cast<void>(sched_getaffinity(0, sizeof set, &set));
    std::vector<int> numbers;
    for (int number = 0; number < CPU_SETSIZE; ++number) {
        if (CPU_ISSET(static_cast<std::size_t>(number), &set)) {
            numbers.push_back(number);
        }
    }
    return numbers;
}

void placeOn(pid_t process, int processor)
{
    const std::string folder = "/proc/" + std::to_string(process) + "/task";
    for (const auto& thread : std::filesystem::directory_iterator(folder)) {
        allow(std::stoi(thread.path().filename().string()), {processor});
    }
}

OnProcessor::OnProcessor(int processor) : before_(processors())
{
    allow(0, {processor});
}

OnProcessor::~OnProcessor()
{
    try {
        allow(0, before_);
    } catch (const std::system_error&) {
        // The processors that were there before are gone: where we are is as good as any.
    }
}

}  // namespace quillon::bench
