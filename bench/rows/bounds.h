#ifndef QUILLON_BENCH_ROWS_BOUNDS_H
#define QUILLON_BENCH_ROWS_BOUNDS_H

#include <string>

namespace quillon::bench {

/// The resource that was busy longest: "medium", "processor" or "plug-in".
std::string boundOf(double medium, double processor, double plugin);

}  // namespace quillon::bench

#endif
