#include "rows/kernel-runs.h"

#include <json/json.h>

#include <sstream>
#include <stdexcept>

#include "process/finished-process.h"
#include "rows/results.h"

namespace quillon::bench {

double millisecondsIn(const std::string& output)
{
    Json::Value report;
    std::istringstream text(output);
    Json::CharReaderBuilder builder;
    std::string errors;
    if (!Json::parseFromStream(builder, text, &report, &errors)) {
        throw std::runtime_error("no report of a benchmark: " + errors);
    }
    const Json::Value& benchmarks = report["benchmarks"];
    if (benchmarks.size() != 1) {
        throw std::runtime_error("not the report of one benchmark");
    }
    const Json::Value& only = benchmarks[0];
    if (only["error_occurred"].asBool()) {
        throw std::runtime_error(only["error_message"].asString());
    }
    if (only["time_unit"].asString() != "ms") {
        throw std::runtime_error("a benchmark's unit is not ms");
    }
    return only["real_time"].asDouble();
}

double kernelTime(const std::string& buildFolder, const std::string& name, const std::string& file,
                  const std::string& program)
{
    const ScopedVariable variable("QUILLON_BENCH_FILE", file);
    const std::string benchmarkProgram = buildFolder + "/bench/" + program;
    return millisecondsIn(
        runToEnd({benchmarkProgram, "--benchmark_filter=^" + name + "/", "--benchmark_format=json"})
            .output);
}

double speedIn(const std::string& output)
{
    // "+F:25:AES-256-CBC:6768212059.70"; one number for each size of block.
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("+F:", 0) == 0) {
            const double speed = std::stod(line.substr(line.rfind(':') + 1));
            if (speed > 0) {
                return speed;
            }
        }
    }
    throw std::runtime_error("openssl speed does not tell its speed");
}

}  // namespace quillon::bench
