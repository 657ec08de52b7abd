#ifndef QUILLON_PLATFORM_STORAGE_PIPED_PROGRAM_H
#define QUILLON_PLATFORM_STORAGE_PIPED_PROGRAM_H

#include <chrono>
#include <string>
#include <vector>

#include "base/secret-bytes.h"

namespace quillon {

/// Runs a program as a filter, without a shell and with an empty environment. It inherits nothing
/// but its three standard streams, so what goes through it is seen by nobody else.
///
/// @param command   the program's absolute path and its arguments
/// @param input     what it reads from its standard input
/// @param limit     most bytes that it may write to its standard output
/// @param longest   when it is not done by then, it is killed with all that it has started
/// @param[out] output  what it wrote, when it ended well
/// @return nothing when it ended with status 0, else why it did not, one line with what it said on
///         its standard error.
/// Thread: any. Throws std::bad_alloc.
std::string runPiped(const std::vector<std::string>& command, const SecretBytes& input,
                     std::size_t limit, std::chrono::milliseconds longest, SecretBytes& output);

}  // namespace quillon

#endif
