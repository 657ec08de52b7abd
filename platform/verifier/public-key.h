#pragma once

#include <openssl/pem.h>

#include <string>
#include <system_error>
#include <vector>

#include "base/handles.h"
#include "platform/verifier/image-trailer.h"

namespace quillon {

/// PEM_read_bio_PUBKEY or PEM_read_bio_PrivateKey.
using KeyReader = decltype(PEM_read_bio_PUBKEY);

/// Reads a key file. A private key has no pass phrase.
/// @param fault  what to say of a file that holds no such key
/// @return the key, never null.
/// @throws ImageError : ImageFault::kFile when the file cannot be read, ImageFault::kKey.
UniqueKey loadKey(const std::string& path, KeyReader* read, const char* fault);

/// @throws ImageError with ImageFault::kKey, naming the path, for other keys than RSA keys of 4096
///         bits.
void requireRsa4096(const EVP_PKEY* key, const std::string& path);

/// Reads an RSA-4096 public key from a PEM file ("BEGIN PUBLIC KEY").
/// @return the key, never null.
/// @throws ImageError : ImageFault::kFile when the file cannot be read, ImageFault::kKey when it
///         holds no RSA-4096 public key.
UniqueKey loadPublicKey(const std::string& path);

/// @return the paths of the files "*.pem" in a directory, in the order of their names; none with an
///         error when it cannot be read. Throws std::bad_alloc.
std::vector<std::string> pemFilesIn(const std::string& directory, std::error_code& error);

/// @return the id by which a trailer names this key.
/// @throws ImageError with ImageFault::kKey when the key cannot be encoded.
KeyId keyIdOf(const EVP_PKEY* key);

/// A pass-phrase callback for OpenSSL that knows none, so that no key file ever makes a program ask
/// on a terminal.
int refusePassPhrase(char* buffer, int size, int writing, void* user);

}  // namespace quillon
