#pragma once

#include <openssl/x509.h>

#include <string>
#include <vector>

#include "base/handles.h"
#include "platform/verifier/image-error.h"

namespace quillon {

using UniqueCertificate = std::unique_ptr<X509, ReleaseWith<&X509_free>>;
using Certificates = std::vector<UniqueCertificate>;

/// Reads the certificates of a PEM file, in their order; other things in the file are passed over.
/// @return at least one.
/// @throws ImageError: ImageFault::kFile when the file cannot be read, ImageFault::kKey when there
///         is no certificate in it or one that cannot be understood.
Certificates loadCertificateFile(const std::string& path);

/// Reads the certificates of all files *.pem in a directory.
/// @return none when the directory is missing or has none.
/// @throws ImageError with ImageFault::kFile when the directory cannot be read.
Certificates loadCertificates(const std::string& directory, const Complain& complain);

}  // namespace quillon
