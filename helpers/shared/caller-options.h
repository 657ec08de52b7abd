#pragma once

#include <optional>
#include <string>

#include "helpers/shared/callers.h"

namespace quillon {

/// The command line of a helper of root's: who may ask, --help, --version.
/// @param program  the helper's name, @param help  all of its --help
/// @param[out] callers  who may ask, as far as options name them
/// @return the exit status when there is nothing left to do: 0, 1 when standard output could not be
///         written, or 2 for a wrong usage; one line on standard error explains the last two.
std::optional<int> parseCallerOptions(int argc, char** argv, const char* program, const char* help,
                                      Callers& callers);

/// Says the line on standard error, with the program's name in front. @return the status
int complain(const char* program, int status, const std::string& line);

}  // namespace quillon
