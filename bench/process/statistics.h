#ifndef QUILLON_BENCH_PROCESS_STATISTICS_H
#define QUILLON_BENCH_PROCESS_STATISTICS_H

#include <cstddef>
#include <vector>

namespace quillon::bench {

/// What is told about many runs of the same thing, in the unit of the samples.
struct Spread
{
    double median = 0;
    double least = 0;
    double p95 = 0;
    std::size_t runs = 0;
};

/// @return the middle sample, or the mean of the two in the middle.
/// @throws std::invalid_argument when there is none
double median(std::vector<double> samples);

/// The nearest-rank percentile: the least sample that so many of a hundred do not exceed.
/// @param percent  above 0, up to 100
/// @throws std::invalid_argument when there is no sample, or for another percentage
double percentile(std::vector<double> samples, double percent);

/// @throws std::invalid_argument when there is no sample
Spread spreadOf(const std::vector<double>& samples);

}  // namespace quillon::bench

#endif
