#ifndef QUILLON_BENCH_ROWS_ROWS_H
#define QUILLON_BENCH_ROWS_ROWS_H

#include <json/json.h>

#include <vector>

#include "rows/results.h"

/// The groups of rows. Each works within a virtual device that bootDevice() has set up, adds its
/// rows, and puts the series behind the charts and tables into `series`, where it has any.
/// Everything throws std::runtime_error, or what it derives from.
namespace quillon::bench {

/// Deciphering and checksums of files, in a fresh process for each run.
/// Series: "deciphering", an array of {"bytes", "service", "plain"} in ms and the "goal" of their
/// ratio, 0 for none; "decipheringParts", an object of "bytes" and, in ms, "whole", "reading",
/// "memory" and "cipher".
void measureKernels(const BenchPlan& plan, std::vector<Row>& rows, Json::Value& series);

/// One small image and one large one through the running service: estimate and update, time and
/// memory; and the same image through swupdate, where that is installed.
void measureUpdates(const BenchPlan& plan, std::vector<Row>& rows, Json::Value& series);

/// Questions to the running service beside a process that only echoes records.
void measureRoundTrips(const BenchPlan& plan, std::vector<Row>& rows, Json::Value& series);

/// Start to READY and idle memory beside the do-nothing process.
/// Series: "start" and "memory" as measureInDevice() returns them.
void measureStarts(const BenchPlan& plan, std::vector<Row>& rows, Json::Value& series);

/// `update --all` over many modules from packages whose mounts are emulated.
void measureManyModules(const BenchPlan& plan, std::vector<Row>& rows, Json::Value& series);

/// What bounds estimates and updates of 1, 10 and 100 modules: no goal, no rows.
/// Series: "bounds", an array of {"setting", "modules", "phase", "seconds", "medium", "processor",
/// "plugin", "bound"}: seconds in all, the seconds that each resource was busy, and the name of the
/// busiest; "boundsImageBytes", the size of each image.
void measureBounds(const BenchPlan& plan, std::vector<Row>& rows, Json::Value& series);

}  // namespace quillon::bench

#endif
