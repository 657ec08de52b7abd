#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace quillon {

/// Says what is wrong with a command line, and what may have been meant.
/// @param app    what has refused the command line
/// @param error  why
std::string describeMistake(const CLI::App& app, const CLI::ParseError& error);

}  // namespace quillon
