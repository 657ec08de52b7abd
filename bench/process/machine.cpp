#include "process/machine.h"

#include <sched.h>
#include <sys/utsname.h>

#include <fstream>

namespace quillon::bench {
namespace {

std::string processorName(const std::string& architecture)
{
    std::ifstream file("/proc/cpuinfo");
    for (std::string line; std::getline(file, line);) {
        const std::size_t colon = line.find(": ");
        if (line.rfind("model name", 0) == 0 && colon != std::string::npos) {
            return line.substr(colon + 2);
        }
    }
    return architecture;  // not every processor has a name
}

std::string compilerName()
{
#if defined(__clang__)
    return std::string("Clang ") + __clang_version__;
#else
    return std::string("GCC ") + __VERSION__;
#endif
}

}  // namespace

Machine thisMachine()
{
    utsname system = {};
    static_cast<void>(uname(&system));
    cpu_set_t processors;
    CPU_ZERO(&processors);
    static_cast<void>(sched_getaffinity(0, sizeof processors, &processors));
    return {processorName(system.machine), CPU_COUNT(&processors),
            std::string(system.sysname) + " " + system.release + " " + system.machine,
            compilerName()};
}

std::string describe(const Machine& machine)
{
    return machine.processor + ", " + std::to_string(machine.cores) +
           (machine.cores == 1 ? " core" : " cores") + "; " + machine.kernel + "; " +
           machine.compiler;
}

}  // namespace quillon::bench
