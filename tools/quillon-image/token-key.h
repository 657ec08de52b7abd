/// Private keys that stay in a token, such as a smart card or an HSM, named by a URI "pkcs11:..."
/// (RFC 7512). OpenSSL reaches them through its PKCS#11 provider or, where there is none, through
/// its PKCS#11 engine. Both are packages of their own.
#pragma once

#include <string>

#include "base/handles.h"

namespace quillon {

/// @return whether a text names a key of a token, not a file.
bool isTokenKey(const std::string& text);

/// @return the URI without its attributes after '?', which may hold the PIN: for messages.
std::string tokenKeyName(const std::string& uri);

/// Opens a token's private key. What it signs is signed by the token. Never asks for a PIN: the URI
/// brings it (pin-value) or names the file that has it (pin-source), whose last line end is none of
/// it.
/// @return the key, never null.
/// @throws ImageError: ImageFault::kKey, naming the key, when it cannot be opened or OpenSSL has
///         neither provider nor engine; ImageFault::kFile for the PIN's file.
UniqueKey openTokenKey(const std::string& uri);

}  // namespace quillon
