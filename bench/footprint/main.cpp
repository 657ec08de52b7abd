#include <CLI/CLI.hpp>
#include <exception>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "footprint/measure.h"
#include "footprint/report.h"
#include "process/figures-in-document.h"
#include "process/machine.h"
#include "process/started-process.h"
#include "process/text-file.h"

namespace fs = std::filesystem;

namespace quillon::bench {
namespace {

constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;

struct Options
{
    Plan plan;
    int settle = 11000;
    bool inDevice = false;
    std::string json;
    std::string update;
};

fs::path ownPath()
{
    return fs::read_symlink("/proc/self/exe");
}

/// This program again, in a device of its own, where it only measures.
Json::Value measureInNewDevice(const Plan& plan)
{
    std::vector<std::string> command = {plan.buildFolder + "/bin/quillon-device",
                                        "run",
                                        "--",
                                        ownPath().string(),
                                        "--in-device",
                                        "--build",
                                        plan.buildFolder,
                                        "--runs",
                                        std::to_string(plan.runs),
                                        "--memory-runs",
                                        std::to_string(plan.memoryRuns),
                                        "--settle",
                                        std::to_string(plan.settle.count()),
                                        "--modules"};
    for (const int count : plan.moduleCounts) {
        command.push_back(std::to_string(count));
    }
    Json::Value results;
    std::istringstream(outputOf(command)) >> results;
    return results;
}

void addOptions(CLI::App& app, Options& options)
{
    Plan& plan = options.plan;
    app.add_option("--build", plan.buildFolder, "build directory to measure; default: our own");
    app.add_option("--runs", plan.runs, "starts of each process; default 200")
        ->check(CLI::Range(1, 100000));
    app.add_option("--modules", plan.moduleCounts, "numbers of modules; default 1 10 100")
        ->check(CLI::Range(0, 9999));
    app.add_option("--memory-runs", plan.memoryRuns, "processes whose memory is read; default 5")
        ->check(CLI::Range(1, 1000));
    app.add_option("--settle", options.settle, "ms from READY to reading memory; default 11000")
        ->check(CLI::Range(0, 600000));
    app.add_option("--json", options.json, "also write the figures to this file, as JSON");
    app.add_option("--update", options.update, "also put the tables into this document");
    app.add_flag("--in-device", options.inDevice,
                 "measure right here, which is a virtual device; says start and memory as JSON");
    app.footer(
        "Exit codes: 0 done; 1 something cannot be measured, read or written;\n"
        "2 wrong command line.");
}

void run(Options& options)
{
    Plan& plan = options.plan;
    plan.settle = std::chrono::milliseconds(options.settle);
    plan.buildFolder = plan.buildFolder.empty() ? ownPath().parent_path().parent_path().string()
                                                : fs::canonical(plan.buildFolder).string();
    if (options.inDevice) {
        std::cout << measureInDevice(plan) << '\n';
        return;
    }

    // A document that cannot take the figures is found out before minutes of measuring.
    const std::string document = options.update.empty() ? "" : readFile(options.update);
    if (!options.update.empty()) {
        static_cast<void>(withFigures(document, kFootprintMarkers, ""));
    }

    Json::Value figures = measureInNewDevice(plan);
    figures["size"] = strippedSizes(plan.buildFolder);
    figures["machine"] = describe(thisMachine()) + ", " QUILLON_BUILD_TYPE " build";
    const std::string markdown = toMarkdown(figures);
    std::cout << markdown;
    if (!options.json.empty()) {
        writeFile(options.json, figures.toStyledString());
    }
    if (!options.update.empty()) {
        writeFile(options.update, withFigures(document, kFootprintMarkers, markdown));
    }
}

}  // namespace
}  // namespace quillon::bench

int main(int count, char* arguments[])
{
    using namespace quillon::bench;
    CLI::App app("Measures what the service takes: size, memory, time to readiness.",
                 "quillon-footprint");
    Options options;
    addOptions(app, options);
    try {
        app.parse(count, arguments);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kWrongUsage;
    }
    try {
        run(options);
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "quillon-footprint: " << error.what() << '\n';
        return kFailed;
    }
}
