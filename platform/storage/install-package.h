#pragma once

#include <string>

#include "base/secret-bytes.h"

namespace quillon {

/// The values of sdp_install_from_file. The service clears bit 1 of a failure before it hands it
/// on, so no failure has that bit set.
enum InstallResult : int {
    kInstalled = 0,
    kAlreadyInstalled = 2,
    kPackageUnreadable = 1,
    kPackageMalformed = 4,
    kPackageNotTrusted = 5,
    kStorageFailed = 8,
    kNobodyTrusted = 9,
};

/// Checks a provisioning package against the device's certificates and policy, raises the security
/// floors and stores the item that it brings. Every failure is told on the log.
/// @param name  of the package, for the log
/// Thread: any. Throws std::exception when memory is short.
InstallResult installPackage(const std::string& name, const SecretBytes& package);

}  // namespace quillon
