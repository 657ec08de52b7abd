#pragma once

#include <string>

namespace quillon::kit {

/// Makes a module project in the directory NAME, which appears whole or not at all.
/// @param name  letters and digits, a letter first, without "emp"
/// Throws Failure: for the name, for a directory that exists, for files.
void makeProject(const std::string& name);

}  // namespace quillon::kit
