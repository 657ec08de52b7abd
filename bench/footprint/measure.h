#ifndef QUILLON_BENCH_FOOTPRINT_MEASURE_H
#define QUILLON_BENCH_FOOTPRINT_MEASURE_H

#include <json/json.h>

#include <chrono>
#include <string>
#include <vector>

namespace quillon::bench {

/// What is measured, and how often.
struct Plan
{
    std::string buildFolder;                    ///< where the programs are; an absolute path
    std::vector<int> moduleCounts{1, 10, 100};  ///< starts are timed with so many modules
    int runs = 200;                             ///< starts of each process with each of the counts
    int memoryModules = 10;
    int memoryRuns = 5;                       ///< processes of each kind whose memory is read
    std::chrono::milliseconds settle{11000};  ///< from READY to reading it; one tick of the service
};

/// @name The processes that are held against each other, as they are called in the results
/// @{
constexpr const char* kService = "service";             ///< quillon-service
constexpr const char* kFloor = "floor";                 ///< do-nothing
constexpr const char* kModulesFloor = "modules-floor";  ///< do-nothing with the modules opened
/// @}

/// Measures start times and memory. Works within a virtual device.
///
/// The processes take turns, and every other round goes the other way round, so that whatever the
/// machine does besides meets all of them alike. Each is killed when it has been measured.
///
/// @return an object with the arrays "start" (milliseconds) and "memory" (KiB). Each element has
///         "modules", "process" and an object with "median", "least", "p95" and "runs": in "time",
///         or in "resident", "proportional", "unshared" and "anonymous".
/// @throws std::runtime_error, or what it derives from, when a process does not become ready or the
///         device cannot be prepared
Json::Value measureInDevice(const Plan& plan);

/// The sizes of the files that are shipped, and of the floor, without symbols and debug
/// information.
/// @return an array of objects with "file" and "bytes"; files that the build does not have are left
///         out.
/// @throws std::runtime_error when strip is missing or fails
Json::Value strippedSizes(const std::string& buildFolder);

}  // namespace quillon::bench

#endif
