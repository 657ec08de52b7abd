#pragma once

#include <string>

namespace quillon::test {

/// Where the storage under test looks for its sealing program; nothing is there at first.
constexpr char kSealingProgram[] = "/run/quillon/systemd-creds";

/// Puts a shell script there.
void putSealingScript(const std::string& script);

/// Puts the real systemd-creds there, with a host key of the virtual device's own.
/// @param withKey    which key to take, in the place of the best one
/// @param tpmDevice  in the place of the machine's own
/// @return false where it is not installed
bool putRealSealing(const std::string& withKey = "host", const std::string& tpmDevice = "");

void removeSealingProgram();

}  // namespace quillon::test
