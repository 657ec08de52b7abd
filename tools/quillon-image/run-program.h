#pragma once

#include <string>
#include <vector>

namespace quillon {

/// A program of the machine that does a part of the work.
struct Program
{
    const char* name;
    const char* package;  ///< the Debian package that brings it
    bool endsWellAnyway;  ///< its exit status tells nothing: only its complaints show a failure
};

/// Runs a program to its end, without a shell. It finds its standard input empty; what it says is
/// kept from the terminal.
///
/// It is looked for in PATH and then in /usr/sbin and /sbin, which are not in every user's PATH. It
/// sees no SOURCE_DATE_EPOCH, speaks English and takes signals as usual.
///
/// @param directory     its working directory
/// @param variables  of its environment in addition to ours, each "NAME=VALUE"
/// @throws ImageError with ImageFault::kFile when the program is missing or fails; the line has
///         what it wrote to its standard error.
void runProgram(const Program& program, const std::vector<std::string>& arguments,
                const std::string& directory, const std::vector<std::string>& variables);

}  // namespace quillon
