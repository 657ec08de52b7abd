#ifndef QUILLON_BENCH_PROCESS_MEMORY_H
#define QUILLON_BENCH_PROCESS_MEMORY_H

#include <sys/types.h>

#include <istream>

namespace quillon::bench {

/// A process's memory as the kernel counts it in /proc/PID/smaps_rollup, in KiB.
struct Memory
{
    long resident = 0;      ///< all pages that are mapped and present
    long proportional = 0;  ///< the same, each page divided by the number of processes that map it
    long unshared = 0;      ///< pages that no other process maps at this moment
    long anonymous = 0;     ///< heap, stacks and changed data: never shared, wherever files lie
};

/// @throws std::runtime_error when a field is missing
Memory parseSmapsRollup(std::istream& text);

/// @throws std::runtime_error when the process cannot be looked at
Memory memoryOf(pid_t process);

}  // namespace quillon::bench

#endif
