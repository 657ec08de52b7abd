#include "process/statistics.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace quillon::bench {
namespace {

void requireSamples(const std::vector<double>& samples)
{
    if (samples.empty()) {
        throw std::invalid_argument("no samples");
    }
}

}  // namespace

double median(std::vector<double> samples)
{
    requireSamples(samples);
    std::sort(samples.begin(), samples.end());
    const std::size_t middle = samples.size() / 2;
    if (samples.size() % 2 == 1) {
        return samples[middle];
    }
    return (samples[middle - 1] + samples[middle]) / 2;
}

double percentile(std::vector<double> samples, double percent)
{
    requireSamples(samples);
    if (!(percent > 0 && percent <= 100)) {
        throw std::invalid_argument("a percentage is above 0 and at most 100");
    }
    std::sort(samples.begin(), samples.end());
    const double rank = std::ceil(percent * static_cast<double>(samples.size()) / 100);
    return samples[std::min(static_cast<std::size_t>(rank), samples.size()) - 1];
}

Spread spreadOf(const std::vector<double>& samples)
{
    requireSamples(samples);
    return {median(samples), *std::min_element(samples.begin(), samples.end()),
            percentile(samples, 95), samples.size()};
}

}  // namespace quillon::bench
