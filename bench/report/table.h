#ifndef QUILLON_BENCH_REPORT_TABLE_H
#define QUILLON_BENCH_REPORT_TABLE_H

#include <json/json.h>

#include <string>

namespace quillon::bench {

/// The rows as a Markdown table: work, what it is held against, measured, goal, met or missed; and
/// the number of goals that were met.
/// @param results  "rows" as toJson(Row) makes them, and "machine"
std::string rowsToMarkdown(const Json::Value& results);

/// What deciphering consists of, as a Markdown table.
/// @param results  "decipheringParts" as measureKernels() makes it; missing: no table
std::string partsToMarkdown(const Json::Value& results);

/// What bounds estimates and updates of many modules, as a Markdown table.
/// @param results  "bounds" as measureBounds() makes it; empty: no table
std::string boundsToMarkdown(const Json::Value& results);

/// The ratios of two builds as a Markdown table.
/// @param results  "comparison": an array of {"work", "unit", "base", "here"}; less is better
std::string comparisonToMarkdown(const Json::Value& results);

}  // namespace quillon::bench

#endif
