#ifndef QUILLON_BENCH_GATE_COUNTS_H
#define QUILLON_BENCH_GATE_COUNTS_H

#include <json/json.h>

#include <cstdint>
#include <string>
#include <vector>

namespace quillon::bench {

/// How far a count may be from the recorded one.
constexpr double kTolerance = 0.03;

/// What counts depend on beside the code: they are held only where it is the recorded one.
/// @return an object of texts: architecture, compiler, libraries, build type
Json::Value thisToolchain();

/// The differences of two toolchains, in words; empty when there are none.
std::string toolchainDifference(const Json::Value& recorded, const Json::Value& here);

/// @param output  what callgrind has written to standard error
/// @throws std::runtime_error when it does not tell how much it has collected
std::uint64_t instructionsIn(const std::string& output);

/// @param output  what count-hot-path has written
/// @throws std::runtime_error when it does not tell its allocations
std::uint64_t allocationsIn(const std::string& output);

/// One count beside the recorded one.
struct Held
{
    std::string path;
    std::string kind;  ///< "instructions" or "allocations"
    std::uint64_t recorded = 0;
    std::uint64_t counted = 0;
    bool isHeld = false;
};

/// Holds counts against recorded ones. Both are objects by path of "instructions" and
/// "allocations"; a path that only one of them has is not held.
std::vector<Held> holdAgainst(const Json::Value& recorded, const Json::Value& counted);

/// The counts as a table in plain text.
std::string toText(const std::vector<Held>& held);

}  // namespace quillon::bench

#endif
