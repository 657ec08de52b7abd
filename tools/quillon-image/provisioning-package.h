/// The package that brings one secure-storage item to a device.
///
///     QUILLON-PROVISION 1
///     item NAME
///     sha256 HEX
///     (an empty line, then the item's bytes to the end of the file)
#ifndef QUILLON_TOOLS_QUILLON_IMAGE_PROVISIONING_PACKAGE_H
#define QUILLON_TOOLS_QUILLON_IMAGE_PROVISIONING_PACKAGE_H

#include <string>

namespace quillon {

/// @param item     name of the item: 1 to 64 characters of A-Z a-z 0-9 . _ -, not starting with "."
/// @param payload  the item's bytes, 1 to 65536
/// @return the whole package.
/// @throws ImageError with ImageFault::Usage when name or payload do not fit.
std::string encodeProvisioningPackage(const std::string& item, const std::string& payload);

}  // namespace quillon

#endif
