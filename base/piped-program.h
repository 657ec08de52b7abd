#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "base/secret-bytes.h"

namespace quillon {

/// What to run, without a shell.
struct ProgramCall
{
    std::string path;                      ///< of the program, absolute
    std::vector<std::string> words;        ///< the name that it goes by, then its arguments
    std::vector<std::string> environment;  ///< all of it, each "NAME=VALUE"
    std::string directory = {};            ///< its working directory; empty: this process's own

    /// Most bytes that it may write to its standard output; without, that is /dev/null.
    std::optional<std::size_t> outputLimit;
    /// When it is not done by then, it is killed with all that it has started. Without, it takes as
    /// long as it takes and stays in this process's group, where the terminal's keys reach it.
    std::optional<std::chrono::milliseconds> longest;
};

/// How a program ended.
struct ProgramEnd
{
    std::string failure;    ///< why it did not end with status 0, one line with its path; or empty
    std::string complaint;  ///< the last 400 bytes that it wrote to its standard error
};

/// Runs a program as a filter. It inherits nothing but its three standard streams, so what goes
/// through it is seen by nobody else, and takes signals as usual, whatever this process does. It is
/// done when it has ended, even where something that it has started still runs.
///
/// @param input        what it reads from its standard input
/// @param[out] output  what it wrote to its standard output, when it ended with status 0
/// Thread: any. Throws std::bad_alloc.
ProgramEnd runPiped(const ProgramCall& call, const SecretBytes& input, SecretBytes& output);

}  // namespace quillon
