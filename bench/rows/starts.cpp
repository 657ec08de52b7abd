#include <algorithm>
#include <map>
#include <stdexcept>

#include "footprint/measure.h"
#include "rows/rows.h"

namespace quillon::bench {
namespace {

constexpr double kKibibytesInMebibyte = 1024;

const Json::Value& element(const Json::Value& elements, int modules, const std::string& process)
{
    for (const Json::Value& candidate : elements) {
        if (candidate["modules"].asInt() == modules && candidate["process"].asString() == process) {
            return candidate;
        }
    }
    throw std::runtime_error("no figures of " + process);
}

double startOf(const Json::Value& starts, int modules, const std::string& process)
{
    return element(starts, modules, process)["time"]["median"].asDouble();
}

void addStarts(const Json::Value& starts, const std::vector<int>& counts, std::vector<Row>& rows)
{
    for (const int count : counts) {
        const double service = startOf(starts, count, kService);
        const double floor = startOf(starts, count, kModulesFloor);
        rows.push_back(
            {"start to READY, " + std::to_string(count) + (count == 1 ? " module" : " modules"),
             "do-nothing process, modules opened", "ms", service, Sense::kAtMost, floor * 1.3 + 2,
             "floor " + fixed(floor, 2) + " ms; limit × 1.3 + 2 ms"});
    }
}

/// Linear means that the thousandth module costs no more than the tenth to hundredth, beyond what
/// opening it costs anyone: the dynamic linker's own share grows with the modules that are there.
void addGrowth(const Json::Value& starts, const std::vector<int>& counts, std::vector<Row>& rows)
{
    const std::size_t last = counts.size() - 1;
    if (last < 2) {
        return;
    }
    const auto beyondFloor = [&](std::size_t from, std::size_t to) {
        const double service =
            startOf(starts, counts[to], kService) - startOf(starts, counts[from], kService);
        const double floor = startOf(starts, counts[to], kModulesFloor) -
                             startOf(starts, counts[from], kModulesFloor);
        return (service - floor) * 1000 / (counts[to] - counts[from]);
    };
    const double service =
        (startOf(starts, counts[last], kService) - startOf(starts, counts[0], kService)) * 1000 /
        (counts[last] - counts[0]);
    const double floor =
        (startOf(starts, counts[last], kModulesFloor) - startOf(starts, counts[0], kModulesFloor)) *
        1000 / (counts[last] - counts[0]);
    rows.push_back(
        {"growth of the start, " + std::to_string(counts[0]) + " to " +
             std::to_string(counts[last]) + " modules",
         "the same of the do-nothing process", "µs a module", service, Sense::kAtMost, floor * 1.3,
         "floor " + fixed(floor, 1) + " µs; beyond it " + fixed(beyondFloor(0, last - 1), 1) +
             " µs each up to " + std::to_string(counts[last - 1]) + ", " +
             fixed(beyondFloor(last - 1, last), 1) + " µs each from there"});
}

void addMemory(const Json::Value& memory, int modules, std::vector<Row>& rows)
{
    const auto resident = [&](const char* process) {
        return element(memory, modules, process)["resident"]["median"].asDouble() /
               kKibibytesInMebibyte;
    };
    rows.push_back({"idle resident memory, " + std::to_string(modules) + " modules",
                    "the do-nothing process", "MiB", resident(kService), Sense::kAtMost,
                    resident(kFloor) + 3, "floor " + fixed(resident(kFloor), 2) + " MiB"});
}

}  // namespace

void measureStarts(const BenchPlan& plan, std::vector<Row>& rows, Json::Value& series)
{
    Plan starts;
    starts.buildFolder = plan.buildFolder;
    starts.moduleCounts = {1, 10, 100, 1000};
    starts.runs = plan.rounds * 4;
    starts.memoryRuns = plan.longRounds;
    if (plan.quick) {
        starts.settle = std::chrono::milliseconds(200);
    }
    const Json::Value figures = measureInDevice(starts);
    addStarts(figures["start"], starts.moduleCounts, rows);
    addGrowth(figures["start"], starts.moduleCounts, rows);
    addMemory(figures["memory"], starts.memoryModules, rows);
    series["start"] = figures["start"];
    series["memory"] = figures["memory"];
}

}  // namespace quillon::bench
