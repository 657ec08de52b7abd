#include <json/json.h>

#include <sstream>
#include <vector>

#include "process/finished-process.h"
#include "process/statistics.h"
#include "rows/rows.h"

namespace quillon::bench {

void measureManyModules(const BenchPlan& plan, std::vector<Row>& rows, Json::Value& /*series*/)
{
    // Each module takes a moment, as one that flashes does. A worker that ends before its guard
    // listens would be waited for until its time is over.
    const ScopedVariable variable("QUILLON_BENCH_TAKES", "2000");
    const int count = plan.quick ? 20 : 1000;
    std::vector<double> overheads;
    std::vector<double> own;
    for (int round = 0; round < plan.longRounds; ++round) {
        Json::Value said;
        std::istringstream(
            runToEnd({plan.buildFolder + "/bench/many-modules", std::to_string(count),
                      plan.buildFolder + "/bench/sink-module.so"})
                .output) >>
            said;
        own.push_back(said["ownSeconds"].asDouble());
        overheads.push_back((said["seconds"].asDouble() - own.back()) * 1000 / count);
    }
    rows.push_back({"`update --all`, " + std::to_string(count) + " modules of 4 KiB",
                    "sum of the modules' own times", "ms a module beyond it", median(overheads),
                    Sense::kAtMost, 1, "modules' own " + fixed(median(own), 3) + " s"});
}

}  // namespace quillon::bench
