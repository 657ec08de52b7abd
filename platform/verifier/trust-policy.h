#pragma once

#include <cstddef>
#include <string>

#include "platform/verifier/image-signature.h"
#include "platform/verifier/image-trailer.h"
#include "platform/verifier/security-floors.h"

namespace quillon {

/// What a device trusts beside its keys. The defaults are those of a device that says nothing.
struct TrustPolicy
{
    bool acceptsFormat1 = true;
    bool requiresProvisioningPurpose = false;
    std::string model;                       ///< empty: format 2 is not known
    std::string place = "the trust policy";  ///< where the model is named, for messages
    Floors floors;
};

/// The largest policy or floors file, in bytes.
constexpr std::size_t kLargestTrustFile = 65536;

/// Reads a policy file, lines of "SETTING = VALUE", blank or beginning with '#':
///
///     format-1 = refused                 (or accepted, as without the line)
///     model = TV2024
///     floor.tuner = 7
///     provisioning-purpose = required    (or optional, as without the line)
///
/// @return the defaults when there is no such file.
/// @throws ImageError with ImageFault::kFile when it cannot be read or a line is wrong, naming the
///         line and the remedy. Nothing may be trusted then.
TrustPolicy loadTrustPolicy(const std::string& path);

/// Reads a file with "floor.MODULE = NUMBER" lines alone, as floorsText makes them.
/// @return none when there is no such file.
/// @throws ImageError as loadTrustPolicy.
Floors loadFloors(const std::string& path);

/// @return the firmware name in a path "DIRECTORY/NAME.bin"; empty when the path names no module.
std::string moduleOf(const std::string& path);

/// Checks what a trailer's header says against a policy. The signature has to be checked for the
/// purpose that is returned.
/// @param path  of the image
/// @throws ImageError with ImageFault::kSignature, naming what is wrong.
ImagePurpose requireAllowed(const ImageTrailer& trailer, const std::string& path,
                            const TrustPolicy& policy);

}  // namespace quillon
