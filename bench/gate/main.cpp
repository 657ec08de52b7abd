// `make bench-gate`: instructions and allocations of the hot paths, held within 3 % of recorded
// values. No clock is involved.
#include <json/json.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "gate/counts.h"
#include "process/finished-process.h"
#include "process/started-process.h"
#include "process/text-file.h"

namespace fs = std::filesystem;

namespace quillon::bench {
namespace {

constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;
constexpr int kNotHeld = 3;

// The same code on every x86-64 processor: OpenSSL with AES-NI, SSSE3 and carry-less multiply but
// without AVX; the C library with what every such processor has, and one size of cache.
constexpr const char* kTunables =
    "GLIBC_TUNABLES=glibc.cpu.hwcaps=-AVX,-AVX2,-AVX512F,-AVX512VL,-AVX512BW,-BMI1,-BMI2,-LZCNT,"
    "-MOVBE,-ERMS,-FSRM,-RTM,-SSE4_2,-XSAVE,-XSAVEC"
    ":glibc.cpu.x86_data_cache_size=0x8000:glibc.cpu.x86_shared_cache_size=0x100000"
    ":glibc.cpu.x86_non_temporal_threshold=0xc0000";
constexpr const char* kPins[] = {"OPENSSL_ia32cap=0x0218020307808000:0x0",
                                 kTunables,
                                 "LD_BIND_NOW=1",
                                 "LC_ALL=C",
                                 "PATH=/usr/bin:/bin",
                                 "QUILLON_DEVICE=gate"};  // we are in one
constexpr const char* kNeeded[] = {"aes", "pclmulqdq", "ssse3"};

struct Options
{
    std::string buildFolder;
    std::string recorded;
    bool record = false;
    bool inDevice = false;
};

fs::path ownPath()
{
    return fs::read_symlink("/proc/self/exe");
}

/// Why counts on this machine say nothing; empty when they do.
std::string reasonToSkip()
{
    if (thisToolchain()["architecture"].asString() != "x86_64") {
        return "counts are recorded for x86_64 only";
    }
    std::ifstream file("/proc/cpuinfo");
    for (std::string line; std::getline(file, line);) {
        if (line.rfind("flags", 0) != 0) {
            continue;
        }
        for (const char* flag : kNeeded) {
            if ((line + " ").find(" " + std::string(flag) + " ") == std::string::npos) {
                return "this processor has no " + std::string(flag);
            }
        }
        return "";
    }
    return "";
}

Json::Value countAll(const std::string& buildFolder)
{
    const std::string program = buildFolder + "/bench/count-hot-path";
    const std::string module = buildFolder + "/bench/tiny-module.so";
    Json::Value counts(Json::objectValue);
    std::istringstream names(runToEnd({program, "--list"}).output);
    for (std::string name; std::getline(names, name);) {
        std::vector<std::string> command = {"env", "-i"};
        command.insert(command.end(), std::begin(kPins), std::end(kPins));
        command.insert(command.end(), {"valgrind", "--tool=callgrind", "--collect-atstart=no",
                                       "--callgrind-out-file=/dev/null", program, module, name});
        const Finished finished = runToEnd(command);
        counts[name]["instructions"] = Json::Value::UInt64{instructionsIn(finished.errors)};
        counts[name]["allocations"] = Json::Value::UInt64{allocationsIn(finished.output)};
    }
    return counts;
}

Json::Value countInNewDevice(const std::string& buildFolder)
{
    Json::Value counts;
    std::istringstream(outputOf({buildFolder + "/bin/quillon-device", "run", "--",
                                 ownPath().string(), "--in-device", "--build", buildFolder})) >>
        counts;
    return counts;
}

int record(const std::string& path, const Json::Value& counts)
{
    Json::Value all;
    all["toolchain"] = thisToolchain();
    all["paths"] = counts;
    writeFile(path, all.toStyledString());
    std::cout << "bench-gate: recorded in " << path << '\n';
    return 0;
}

int hold(const Json::Value& recorded, const Json::Value& counts)
{
    const std::vector<Held> held = holdAgainst(recorded["paths"], counts);
    std::cout << toText(held);
    const bool allHeld =
        std::all_of(held.begin(), held.end(), [](const Held& line) { return line.isHeld; });
    if (allHeld) {
        std::cout << "bench-gate: all counts are within 3 % of the recorded ones\n";
        return 0;
    }
    std::cout << "bench-gate: counts are more than 3 % from the recorded ones. If the change is\n"
                 "meant, for better or worse, record it together with the code that makes it:\n"
                 "  make bench-gate GATE_ARGS=--record\n";
    return kNotHeld;
}

int run(Options& options)
{
    options.buildFolder = options.buildFolder.empty()
                              ? ownPath().parent_path().parent_path().string()
                              : fs::canonical(options.buildFolder).string();
    if (options.inDevice) {
        std::cout << countAll(options.buildFolder) << '\n';
        return 0;
    }
    std::string skip = reasonToSkip();
    Json::Value recorded;
    if (skip.empty() && !options.record) {
        std::istringstream(readFile(options.recorded)) >> recorded;
        const std::string difference = toolchainDifference(recorded["toolchain"], thisToolchain());
        skip = difference.empty() ? "" : "the counts were recorded with another one: " + difference;
    }
    if (!skip.empty()) {
        std::cout << "bench-gate: skipped, " << skip << '\n';
        return 0;
    }
    const Json::Value counts = countInNewDevice(options.buildFolder);
    return options.record ? record(options.recorded, counts) : hold(recorded, counts);
}

}  // namespace
}  // namespace quillon::bench

int main(int count, char* arguments[])
{
    using namespace quillon::bench;
    CLI::App app("Holds instructions and allocations of the hot paths against recorded counts.",
                 "quillon-gate");
    Options options;
    app.add_option("--build", options.buildFolder, "build directory; default: our own");
    app.add_option("--recorded", options.recorded, "the recorded counts");
    app.add_flag("--record", options.record, "write them instead");
    app.add_flag("--in-device", options.inDevice,
                 "count right here, which is a virtual device; says the counts as JSON");
    app.footer(
        "Exit codes: 0 held, recorded or skipped; 1 something cannot be counted, read or written;\n"
        "2 wrong command line; 3 not held.");
    try {
        app.parse(count, arguments);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kWrongUsage;
    }
    try {
        return run(options);
    } catch (const std::exception& error) {
        std::cerr << "quillon-gate: " << error.what() << '\n';
        return kFailed;
    }
}
