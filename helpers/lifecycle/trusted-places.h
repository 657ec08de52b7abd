#pragma once

#include <string>
#include <vector>

namespace quillon::unit {

/// A path as a shell takes it, on one line whatever is in it.
std::string quoted(const std::string& path);

struct PlaceFault
{
    std::string text;       ///< one line, with the path
    std::string remedy;     ///< the command that mends it
    bool isHidden = false;  ///< nothing is known to be wrong: only root can look
};

/// The keys, certificates, policy, floors, verifier and modules of the device.
std::vector<std::string> trustedPlaces();

/// Looks at who can change what a device trusts: each place, everything in it when it is a
/// directory, what symbolic links lead to, and all directories above. All of it has to belong to
/// root and to be writable by root alone. What is missing is no fault; the directories above it are
/// looked at.
/// @param places  absolute paths
/// Needs root's rights to see everything. Thread: any.
std::vector<PlaceFault> inspectPlaces(const std::vector<std::string>& places);

/// The same as lines: the path, what is wrong and the command that mends it.
std::vector<std::string> faultsOf(const std::vector<std::string>& places);

}  // namespace quillon::unit
