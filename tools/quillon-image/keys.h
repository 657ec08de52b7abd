#pragma once

#include <array>
#include <string>

#include "base/handles.h"

namespace quillon {

/// The AES-256 key that enciphers images.
using ImageKey = std::array<unsigned char, 32>;

/// Derives the key of the images from a device's secure-storage item.
///
/// The service takes the first 32 characters of the item's lowercase hexadecimal text, as they
/// stand, for the key. Only the first 16 bytes of the item therefore matter.
/// @param item  raw bytes, at least 16
/// @throws ImageError with ImageFault::kKey when the item is shorter.
ImageKey imageKeyOf(const std::string& item);

// Each of these reads a key file, or opens the key of a token that a URI "pkcs11:..." names
// (token-key.h), which loadImageKey does not. The key is never null.
// @throws ImageError: ImageFault::kFile or ImageFault::kKey, naming the file.

/// Reads an item file and derives its key.
ImageKey loadImageKey(const std::string& path);

/// Reads a signing key: an RSA-4096 private key in PEM form without a pass phrase.
UniqueKey loadSigningKey(const std::string& path);

/// Reads a provisioning key: a private key in PEM form without a pass phrase, of any kind.
UniqueKey loadPrivateKey(const std::string& path);

/// The files that createKeys makes in its directory. The private ones stay with the maker.
constexpr char kSigningKeyFile[] = "signing-key.pem";            ///< private; signs images
constexpr char kPublicKeyFile[] = "signing-key.pub.pem";         ///< for the trusted-keys directory
constexpr char kImageKeyFile[] = "image-key.bin";                ///< the secure-storage item
constexpr char kProvisioningKeyFile[] = "provisioning-key.pem";  ///< private; signs packages
constexpr char kProvisioningCertificateFile[] =
    "provisioning-certificate.pem";  ///< for the directory of provisioning certificates
constexpr char kProvisioningPackageFile[] = "00000066.bin";  ///< brings the item to a device

/// Makes a new signing key, a new image key, a new provisioning key with its certificate, and the
/// package that provisions the image key.
///
/// The directory is made when it is missing. All secret files are readable by their owner only.
/// @param replace  false: when any of the six files exists, nothing is written
/// @throws ImageError: ImageFault::kFile, naming the file.
void createKeys(const std::string& directory, bool replace);

}  // namespace quillon
