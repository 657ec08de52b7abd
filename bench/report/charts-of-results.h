#ifndef QUILLON_BENCH_REPORT_CHARTS_OF_RESULTS_H
#define QUILLON_BENCH_REPORT_CHARTS_OF_RESULTS_H

#include <json/json.h>

#include <vector>

#include "report/chart.h"

namespace quillon::bench {

/// Deciphering against the image's size, start against the number of modules, and estimate against
/// the number of modules, each with its limit.
/// @param results  the series as the groups of rows make them; what is missing has no points
std::vector<Chart> chartsOf(const Json::Value& results);

}  // namespace quillon::bench

#endif
