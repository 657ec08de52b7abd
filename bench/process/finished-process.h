#ifndef QUILLON_BENCH_PROCESS_FINISHED_PROCESS_H
#define QUILLON_BENCH_PROCESS_FINISHED_PROCESS_H

#include <string>
#include <vector>

namespace quillon::bench {

/// What a program that ran to its end has taken and said.
struct Finished
{
    double wallSeconds = 0;  ///< from just before it was started to its end
    double cpuSeconds = 0;   ///< of it and of the children that it waited for, user and system
    std::string output;      ///< standard output
    std::string errors;      ///< standard error
    bool succeeded = false;  ///< it ended by itself, with exit status 0
};

/// Runs a program to its end. Its standard input is /dev/null.
/// @param command  program, looked for in PATH, and arguments
/// @param folder   the working directory; empty: ours
/// @throws std::runtime_error, with the end of what it said, when it cannot be started or its exit
///         status is not 0
Finished runToEnd(const std::vector<std::string>& command, const std::string& folder = "");

/// The same, however it ends.
/// @throws std::runtime_error when it cannot be started
Finished runToAnyEnd(const std::vector<std::string>& command, const std::string& folder = "");

/// The same, but the wall time ends when its standard output has said something for the first time.
/// @param text  what it says when its work is done, whatever it does until its end
/// @throws std::runtime_error when it cannot be started or does not say it
Finished runUntilItSays(const std::vector<std::string>& command, const std::string& folder,
                        const std::string& text);

}  // namespace quillon::bench

#endif
