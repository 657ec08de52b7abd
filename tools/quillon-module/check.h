#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "tools/quillon-module/exit-codes.h"

namespace quillon::kit {

/// The command line of "check".
struct CheckRequest
{
    std::vector<std::string> files;
    std::string info;
    std::string image;
    std::string filter;  ///< a pattern as of the shell; empty: every clause
    std::string log;     ///< a file for the module's vendor; empty: none
    int level = 5;
    double seconds = 10;  ///< for one answer
    bool json = false;
    bool onlyFailed = false;
    bool inProcess = false;
    bool confined = false;
};

/// Holds modules to the clauses and writes what became of each.
/// @return kExitSuccess or kExitBroken. Throws Failure.
ExitCode check(const CheckRequest& request);

/// Writes the clauses that a request selects.
ExitCode listClauses(const CheckRequest& request);

}  // namespace quillon::kit
