#ifndef QUILLON_BENCH_PROCESS_WARM_MEMORY_H
#define QUILLON_BENCH_PROCESS_WARM_MEMORY_H

#include <cstddef>

namespace quillon::bench {

/// Touches so much memory and gives it back to the kernel.
///
/// On a virtual machine a free page may be one that the host has taken back, and its next touch
/// then costs a fault of the host beside that of the kernel: six times as much as all of a
/// deciphering. Whoever measures right after this gets pages that the machine really has.
void warmMemory(std::size_t bytes);

}  // namespace quillon::bench

#endif
