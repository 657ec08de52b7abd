#ifndef QUILLON_BENCH_GATE_HOT_PATHS_H
#define QUILLON_BENCH_GATE_HOT_PATHS_H

#include <functional>
#include <string>
#include <vector>

namespace quillon::bench {

/// Something that the service does often, or that everybody waits for.
struct HotPath
{
    std::string name;
    std::function<void()> prepare;  ///< not counted; also does what happens once in a process
    std::function<void()> run;      ///< counted; throws std::runtime_error when it did not work
};

/// All of them. Each works once in a process, in a virtual device that bootDevice() has set up.
/// @param tinyModule  a module that takes its identifier from its library name
std::vector<HotPath> hotPaths(const std::string& tinyModule);

}  // namespace quillon::bench

#endif
