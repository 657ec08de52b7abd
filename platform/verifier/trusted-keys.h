#ifndef QUILLON_PLATFORM_VERIFIER_TRUSTED_KEYS_H
#define QUILLON_PLATFORM_VERIFIER_TRUSTED_KEYS_H

#include <functional>
#include <string>

#include "signed-file.h"

namespace quillon {

/// Checks a file's signature with the key that its trailer names, out of the files "*.pem" of a
/// folder, taken in the order of their names.
///
/// @param complain  called with one line for each file that is of no use and is passed over: such a
///                  file must not lock the good keys out
/// @return path of the key that signed the file.
/// @throws ImageError: ImageFault::Signature when no key has the id or its signature is wrong,
///         ImageFault::File when the file cannot be read.
std::string requireTrustedSignature(const SignedFile& file, const std::string& folder,
                                    const std::function<void(const std::string&)>& complain);

}  // namespace quillon

#endif
