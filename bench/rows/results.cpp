#include "rows/results.h"

#include <algorithm>
#include <cstdlib>
#include <iomanip>
#include <numeric>
#include <sstream>

namespace quillon::bench {

bool isMet(const Row& row)
{
    return row.sense == Sense::kAtLeast ? row.measured >= row.limit : row.measured <= row.limit;
}

Json::Value toJson(const Row& row)
{
    Json::Value value;
    value["work"] = row.work;
    value["against"] = row.against;
    value["figure"] = row.figure;
    value["measured"] = row.measured;
    value["goal"] = row.sense == Sense::kAtLeast ? "at least" : "at most";
    value["limit"] = row.limit;
    value["met"] = isMet(row);
    value["detail"] = row.detail;
    return value;
}

std::vector<std::vector<double>> inTurns(int rounds, const std::vector<Measurement>& measurements)
{
    std::vector<std::vector<double>> samples(measurements.size());
    std::vector<std::size_t> order(measurements.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    for (const std::size_t which : order) {
        static_cast<void>(measurements[which]());
    }
    for (int round = 0; round < rounds; ++round) {
        for (const std::size_t which : order) {
            samples[which].push_back(measurements[which]());
        }
        std::reverse(order.begin(), order.end());
    }
    return samples;
}

std::string fixed(double value, int decimals)
{
    std::ostringstream text;
    text << std::fixed << std::setprecision(decimals) << value;
    return text.str();
}

ScopedVariable::ScopedVariable(const char* name, const std::string& value) : name_(name)
{
    static_cast<void>(setenv(name, value.c_str(), 1));
}

ScopedVariable::~ScopedVariable()
{
    static_cast<void>(unsetenv(name_));
}

}  // namespace quillon::bench
