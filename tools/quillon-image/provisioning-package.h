/// The package that brings one secure-storage item to a device, signed by its maker
/// (provisioning-content.h, signed-package.h).
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "base/handles.h"
#include "platform/storage/maker-certificates.h"
#include "platform/verifier/security-floors.h"

namespace quillon {

/// @param item          name of the item; empty: floors alone
/// @param payload       the item's bytes, 1 to 65536
/// @param certificates  the signer's first, then those that lead to one that the devices trust
/// @param floors        security floors, of valid names
/// @return the whole package.
/// @throws ImageError: ImageFault::kUsage when name or payload do not fit, ImageFault::kKey when
///         key and certificate do not belong together or devices would refuse the key.
std::string encodeProvisioningPackage(const std::string& item, const std::string& payload,
                                      EVP_PKEY* key, const Certificates& certificates,
                                      const Floors& floors = {});

struct ProvisioningPackageInfo
{
    std::size_t size = 0;  ///< of the package, in bytes
    std::string item;      ///< empty: floors alone
    std::size_t payloadSize = 0;
    std::string signer;  ///< the subject of the signer's certificate; empty when it was not checked
    Floors floors;
};

/// Tells what a file brings, without looking at its signature.
/// @return nothing when the file cannot be read or is no provisioning package.
std::optional<ProvisioningPackageInfo> inspectProvisioningPackage(const std::string& path);

/// Checks a package as a device does.
/// @param directory    with the certificates (*.pem) that are trusted
/// @param wantsPurpose  as of openSignedPackage
/// @throws ImageError: ImageFault::kFile, ImageFault::kFormat, ImageFault::kSignature.
ProvisioningPackageInfo verifyProvisioningPackage(const std::string& path,
                                                  const std::string& directory, bool wantsPurpose,
                                                  const Complain& complain);

}  // namespace quillon
