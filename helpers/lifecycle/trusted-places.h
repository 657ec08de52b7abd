#pragma once

#include <string>
#include <vector>

namespace quillon::unit {

/// Looks at who can change what a device trusts: each place, everything in it when it is a
/// directory, what symbolic links lead to, and all directories above. All of it has to belong to
/// root and to be writable by root alone. What is missing is no fault; the directories above it are
/// looked at.
/// @param places  absolute paths
/// @return a line for each fault, with the path, what is wrong and the command that mends it.
/// Needs root's rights. Thread: any.
std::vector<std::string> faultsOf(const std::vector<std::string>& places);

}  // namespace quillon::unit
