#include "footprint/report.h"

#include <iomanip>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "footprint/measure.h"

namespace quillon::bench {
namespace {

constexpr double kKibibyte = 1024;

std::string fixed(double value, int decimals)
{
    std::ostringstream text;
    text << std::fixed << std::setprecision(decimals) << value;
    return text.str();
}

std::string labelOf(const std::string& process)
{
    if (process == kService) {
        return "`quillon-service`";
    }
    return process == kFloor ? "floor" : "floor with the modules opened";
}

/// A cell: the median, and the spread in brackets.
std::string cell(const Json::Value& spread, double unit)
{
    return fixed(spread["median"].asDouble() / unit, 2) + " (" +
           fixed(spread["least"].asDouble() / unit, 2) + "–" +
           fixed(spread["p95"].asDouble() / unit, 2) + ")";
}

std::string row(const std::vector<std::string>& cells)
{
    std::string line = "|";
    for (const std::string& text : cells) {
        line += " " + text + " |";
    }
    return line + "\n";
}

std::string tableHead(const std::vector<std::string>& titles)
{
    std::string rule = "|---|";
    for (std::size_t i = 1; i < titles.size(); ++i) {
        rule += "---:|";
    }
    return row(titles) + rule + "\n";
}

std::string sizeTable(const Json::Value& sizes)
{
    std::string table = tableHead({"file", "KiB", "bytes"});
    for (const Json::Value& size : sizes) {
        const bool isFloor = size["file"].asString() == "do-nothing";
        table += row({isFloor ? "floor" : "`" + size["file"].asString() + "`",
                      fixed(size["bytes"].asDouble() / kKibibyte, 1), size["bytes"].asString()});
    }
    return table;
}

std::string memoryTable(const Json::Value& memory)
{
    std::string table = tableHead({"process", "resident", "proportional", "unshared", "anonymous"});
    for (const Json::Value& process : memory) {
        table += row({labelOf(process["process"].asString()), cell(process["resident"], kKibibyte),
                      cell(process["proportional"], kKibibyte),
                      cell(process["unshared"], kKibibyte), cell(process["anonymous"], kKibibyte)});
    }
    return table;
}

const Json::Value& timeOf(const Json::Value& start, const Json::Value& modules,
                          const std::string& process)
{
    for (const Json::Value& result : start) {
        if (result["modules"] == modules && result["process"].asString() == process) {
            return result["time"];
        }
    }
    throw std::runtime_error("no start times of " + process);
}

std::string startTable(const Json::Value& start)
{
    std::string table = tableHead({"modules", labelOf(kService), labelOf(kFloor),
                                   labelOf(kModulesFloor), "beyond it", "times it"});
    for (const Json::Value& result : start) {
        if (result["process"].asString() != kService) {
            continue;  // a row is one number of modules
        }
        const Json::Value& modules = result["modules"];
        const Json::Value& floor = timeOf(start, modules, kModulesFloor);
        const double service = result["time"]["median"].asDouble();
        const double least = floor["median"].asDouble();
        table += row({modules.asString(), cell(result["time"], 1),
                      cell(timeOf(start, modules, kFloor), 1), cell(floor, 1),
                      fixed(service - least, 2), fixed(service / least, 2)});
    }
    return table;
}

}  // namespace

std::string toMarkdown(const Json::Value& figures)
{
    const Json::Value& memory = figures["memory"];
    const Json::Value& start = figures["start"];
    const std::string runs = start[0]["time"]["runs"].asString();
    const std::string memoryRuns = memory[0]["resident"]["runs"].asString();
    return "Measured on: " + figures["machine"].asString() + ".\n\n" + "Size without symbols:\n\n" +
           sizeTable(figures["size"]) + "\n" +  //
           "Memory in MiB, idle with " + memory[0]["modules"].asString() + " modules, " +
           fixed(figures["settle"].asDouble() / 1000, 1) +
           " s after READY; median (least–95th percentile) of " + memoryRuns +
           " processes each:\n\n" + memoryTable(memory) + "\n" +
           "Time from start to READY in ms; median (least–95th percentile) of " + runs +
           " starts each:\n\n" + startTable(start);
}

}  // namespace quillon::bench
