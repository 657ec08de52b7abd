#pragma once

#include <functional>
#include <string>

#include "platform/verifier/image-error.h"
#include "platform/verifier/image-signature.h"

namespace quillon {

/// Checks a signature with the key that the trailer names, out of the files "*.pem" of a directory,
/// taken in the order of their names.
///
/// @param path      the file that ends in the trailer, for the errors' lines only
/// @param purpose   what a trailer of format 2 has to be made for
/// @param digest    called once there is a key to check with, so that a file which nobody trusted
///                  signed is not read; what it throws comes through
/// @return path of the key that signed the content.
/// @throws ImageError with ImageFault::kSignature when no key has the id or its signature is wrong.
std::string requireTrustedSignature(const ImageTrailer& trailer, const std::string& path,
                                    const ImagePurpose& purpose,
                                    const std::function<ContentDigest()>& digest,
                                    const std::string& directory, const Complain& complain);

}  // namespace quillon
