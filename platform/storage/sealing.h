#pragma once

#include <string>

#include "base/secret-bytes.h"

namespace quillon {

/// Items at rest: enciphered by systemd-creds under the host's key, the TPM's, or both, together
/// with the item's name.

constexpr std::size_t kLargestSealed = 262144;  ///< bytes

/// @return false only where the program is not installed.
bool sealingIsThere();

/// @param[out] sealed  what unseal() wants, on success
/// @return nothing on success, else why not. Throws std::bad_alloc.
std::string seal(const std::string& item, const SecretBytes& plain, SecretBytes& sealed);

/// @param item  has to be the name that was given to seal()
/// @return nothing on success, else why not. Throws std::bad_alloc.
std::string unseal(const std::string& item, const SecretBytes& sealed, SecretBytes& plain);

}  // namespace quillon
