#include "report/table.h"

#include <algorithm>
#include <cmath>

#include "rows/results.h"

namespace quillon::bench {
namespace {

/// Three digits that matter: 0.42, 1.65, 19.3, 312.
std::string rounded(double value)
{
    const double size = std::fabs(value);
    return fixed(value, size < 10 ? 2 : size < 100 ? 1 : 0);
}

std::string line(std::initializer_list<std::string> cells)
{
    std::string text = "|";
    for (const std::string& cell : cells) {
        text += " " + cell + " |";
    }
    return text + "\n";
}

std::string share(const Json::Value& bound, const char* resource)
{
    const double seconds = bound["seconds"].asDouble();
    const double busy = bound[resource].asDouble();
    return seconds > 0 ? fixed(100 * busy / seconds, 0) + " %" : "";
}

}  // namespace

std::string rowsToMarkdown(const Json::Value& results)
{
    const Json::Value& rows = results["rows"];
    std::string table = "Measured on: " + results["machine"].asString() + ".\n\n";
    table += "| work | held against | measured | goal | |\n|---|---|---:|---:|---|\n";
    int met = 0;
    for (const Json::Value& row : rows) {
        met += row["met"].asBool() ? 1 : 0;
        const std::string sign = row["goal"].asString() == "at least" ? "≥ " : "≤ ";
        table += line({row["work"].asString(),
                       row["against"].asString() + " (" + row["detail"].asString() + ")",
                       rounded(row["measured"].asDouble()) + " " + row["figure"].asString(),
                       sign + rounded(row["limit"].asDouble()),
                       row["met"].asBool() ? "met" : "**missed**"});
    }
    return table + "\n" + std::to_string(met) + " of " + std::to_string(rows.size()) +
           " goals met.\n";
}

std::string partsToMarkdown(const Json::Value& results)
{
    const Json::Value& parts = results["decipheringParts"];
    if (parts.empty()) {
        return "";
    }
    const double whole = parts["whole"].asDouble();
    const auto row = [&](const char* what, double milliseconds) {
        return line({what, fixed(milliseconds, 1), fixed(100 * milliseconds / whole, 0) + " %"});
    };
    const double reading = parts["reading"].asDouble();
    const double memory = parts["memory"].asDouble();
    const double cipher = parts["cipher"].asDouble();
    return "What deciphering an image of " + fixed(parts["bytes"].asDouble() / kMebibyte, 0) +
           " MiB consists of, each part alone:\n\n| part | ms | of the whole |\n|---|---:|---:|\n" +
           row("the whole, `aes_256_cbc_all`", whole) +
           row("copying the file out of the page cache, 10240 bytes a time", reading) +
           row("first touch of the output, in huge pages", memory) +
           row("AES-256-CBC, data in the processor's cache", cipher) +
           row("these three together", reading + memory + cipher);
}

std::string boundsToMarkdown(const Json::Value& results)
{
    const Json::Value& bounds = results["bounds"];
    if (bounds.empty()) {
        return "";
    }
    std::string table = "Images of " +
                        fixed(results["boundsImageBytes"].asDouble() / kMebibyte, 2) +
                        " MiB each; the shares of the time that each resource was busy:\n\n";
    table +=
        "| images | phase | modules | seconds | medium | processor | plug-in | bound by |\n"
        "|---|---|---:|---:|---:|---:|---:|---|\n";
    for (const Json::Value& bound : bounds) {
        table += line({bound["setting"].asString(), bound["phase"].asString(),
                       bound["modules"].asString(), fixed(bound["seconds"].asDouble(), 3),
                       share(bound, "medium"), share(bound, "processor"), share(bound, "plugin"),
                       bound["bound"].asString()});
    }
    return table;
}

std::string comparisonToMarkdown(const Json::Value& results)
{
    std::string table = "Measured on: " + results["machine"].asString() + ".\n\n";
    table += "| work | base | here | here / base |\n|---|---:|---:|---:|\n";
    for (const Json::Value& pair : results["comparison"]) {
        const double base = pair["base"].asDouble();
        const double here = pair["here"].asDouble();
        const std::string unit = " " + pair["unit"].asString();
        table += line({pair["work"].asString(), rounded(base) + unit, rounded(here) + unit,
                       base > 0 ? fixed(here / base, 3) : ""});
    }
    return table;
}

}  // namespace quillon::bench
