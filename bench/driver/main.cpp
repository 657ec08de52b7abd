// `make bench` and `make bench-compare`.
#include <json/json.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "process/device.h"
#include "process/figures-in-document.h"
#include "process/machine.h"
#include "process/started-process.h"
#include "process/text-file.h"
#include "report/chart.h"
#include "report/charts-of-results.h"
#include "report/table.h"
#include "rows/comparison.h"
#include "rows/results.h"
#include "rows/rows.h"

namespace fs = std::filesystem;

namespace quillon::bench {
namespace {

constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;
constexpr int kGoalMissed = 3;

constexpr int kQuickRounds = 2;

constexpr const char* kDocument = "/performance.md";
constexpr const char* kPicture = "/performance.svg";

struct Group
{
    const char* name;
    void (*measure)(const BenchPlan&, std::vector<Row>&, Json::Value&);
};
constexpr Group kGroups[] = {{"kernels", measureKernels},          {"updates", measureUpdates},
                             {"round-trips", measureRoundTrips},   {"starts", measureStarts},
                             {"many-modules", measureManyModules}, {"bounds", measureBounds}};

struct Options
{
    BenchPlan plan;
    bool inDevice = false;
    bool check = false;
    std::string base;
    std::string json;
    std::string svg;
    std::string publish;
};

fs::path ownPath()
{
    return fs::read_symlink("/proc/self/exe");
}

Json::Value measure(const BenchPlan& plan)
{
    Json::Value results;
    std::vector<Row> rows;
    for (const Group& group : kGroups) {
        const bool wanted = plan.only.empty() || std::find(plan.only.begin(), plan.only.end(),
                                                           group.name) != plan.only.end();
        if (wanted) {
            std::cerr << "measuring: " << group.name << '\n';
            group.measure(plan, rows, results);
        }
    }
    results["rows"] = Json::Value(Json::arrayValue);
    for (const Row& row : rows) {
        results["rows"].append(toJson(row));
    }
    return results;
}

/// This program again, in a device of its own, where it only measures.
Json::Value measureInNewDevice(const Options& options)
{
    const BenchPlan& plan = options.plan;
    std::vector<std::string> command = {plan.buildFolder + "/bin/quillon-device",
                                        "run",
                                        "--",
                                        ownPath().string(),
                                        "--in-device",
                                        "--build",
                                        plan.buildFolder,
                                        "--rounds",
                                        std::to_string(plan.rounds),
                                        "--long-rounds",
                                        std::to_string(plan.longRounds)};
    if (plan.quick) {
        command.emplace_back("--quick");
    }
    if (!options.base.empty()) {
        command.insert(command.end(), {"--base", options.base});
    }
    for (const std::string& group : plan.only) {
        command.insert(command.end(), {"--only", group});
    }
    Json::Value results;
    std::istringstream(outputOf(command)) >> results;
    results["machine"] = describe(thisMachine()) + ", " QUILLON_BUILD_TYPE " build";
    return results;
}

void addOptions(CLI::App& app, Options& options)
{
    BenchPlan& plan = options.plan;
    app.add_option("--build", plan.buildFolder, "build directory to measure; default: our own");
    app.add_option("--rounds", plan.rounds, "runs of what takes a second or less; default 15")
        ->check(CLI::Range(1, 1000));
    app.add_option("--long-rounds", plan.longRounds, "runs of what takes longer; default 7")
        ->check(CLI::Range(1, 1000));
    app.add_flag("--quick", plan.quick, "small images and few rounds: whether all works");
    app.add_option("--only", plan.only,
                   "measure this group only; may be given several times: kernels, updates,\n"
                   "round-trips, starts, many-modules, bounds")
        ->allow_extra_args(false)
        ->check(CLI::IsMember(
            {"kernels", "updates", "round-trips", "starts", "many-modules", "bounds"}));
    app.add_option("--base", options.base, "compare with this build directory instead");
    app.add_option("--json", options.json, "also write all figures to this file, as JSON");
    app.add_option("--svg", options.svg, "also draw the charts into this file");
    app.add_option("--publish", options.publish,
                   "also put tables and charts into performance.md and performance.svg in this\n"
                   "folder, unless they are quick or partial ones");
    app.add_flag("--check", options.check, "exit with 3 when a goal is missed");
    app.add_flag("--in-device", options.inDevice,
                 "measure right here, which is a virtual device; says the figures as JSON");
    app.footer(
        "Exit codes: 0 done; 1 something cannot be measured, read or written;\n"
        "2 wrong command line; 3 a goal is missed, with --check.");
}

bool allMet(const Json::Value& results)
{
    return std::all_of(results["rows"].begin(), results["rows"].end(),
                       [](const Json::Value& row) { return row["met"].asBool(); });
}

std::string allTables(const Json::Value& results)
{
    std::string tables = rowsToMarkdown(results);
    for (const std::string& table : {partsToMarkdown(results), boundsToMarkdown(results)}) {
        tables += table.empty() ? "" : "\n" + table;
    }
    return tables;
}

/// The document that takes the figures; empty when none is to.
std::string documentOf(const Options& options)
{
    const bool isWhole = !options.plan.quick && options.plan.only.empty() && options.base.empty();
    if (options.publish.empty() || !isWhole) {
        return "";
    }
    std::string document = readFile(options.publish + kDocument);
    static_cast<void>(withFigures(document, kPerformanceMarkers, ""));
    return document;
}

int run(Options& options)
{
    BenchPlan& plan = options.plan;
    if (plan.quick) {
        plan.rounds = std::min(plan.rounds, kQuickRounds);
        plan.longRounds = 1;
    }
    plan.buildFolder = plan.buildFolder.empty() ? ownPath().parent_path().parent_path().string()
                                                : fs::canonical(plan.buildFolder).string();
    if (!options.base.empty()) {
        options.base = fs::canonical(options.base).string();
    }
    if (options.inDevice) {
        bootDevice();
        Json::Value results;
        if (options.base.empty()) {
            results = measure(plan);
        } else {
            results["comparison"] = compareBuilds(plan, options.base);
        }
        std::cout << results << '\n';
        return 0;
    }

    // A document that cannot take the figures is found out before minutes of measuring.
    const std::string document = documentOf(options);
    const Json::Value results = measureInNewDevice(options);
    const std::string markdown =
        options.base.empty() ? allTables(results) : comparisonToMarkdown(results);
    std::cout << markdown;
    if (plan.quick) {
        std::cerr << "a quick run only shows that all of it works: its figures say little\n";
    }
    if (!options.json.empty()) {
        writeFile(options.json, results.toStyledString());
    }
    if (!options.svg.empty()) {
        writeFile(options.svg, toSvg(chartsOf(results)));
    }
    if (!document.empty()) {
        writeFile(options.publish + kDocument,
                  withFigures(document, kPerformanceMarkers, markdown));
        writeFile(options.publish + kPicture, toSvg(chartsOf(results)));
    }
    return options.check && !allMet(results) ? kGoalMissed : 0;
}

}  // namespace
}  // namespace quillon::bench

int main(int count, char* arguments[])
{
    using namespace quillon::bench;
    CLI::App app("Measures how fast the service is, each figure beside its limit.",
                 "quillon-bench");
    Options options;
    addOptions(app, options);
    try {
        app.parse(count, arguments);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kWrongUsage;
    }
    try {
        return run(options);
    } catch (const std::exception& error) {
        std::cerr << "quillon-bench: " << error.what() << '\n';
        return kFailed;
    }
}
