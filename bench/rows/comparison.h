#ifndef QUILLON_BENCH_ROWS_COMPARISON_H
#define QUILLON_BENCH_ROWS_COMPARISON_H

#include <json/json.h>

#include <string>

#include "rows/results.h"

namespace quillon::bench {

/// Measures two builds in turns. Works within a virtual device that bootDevice() has set up.
/// @param plan  its build folder is the one that is compared
/// @param base  the build folder that it is compared with, made with this very bench
/// @return an array of {"work", "unit", "base", "here"}, medians; less is better
/// @throws std::runtime_error, or what it derives from
Json::Value compareBuilds(const BenchPlan& plan, const std::string& base);

}  // namespace quillon::bench

#endif
