#pragma once

#include "base/handles.h"
#include "platform/storage/maker-certificates.h"

namespace quillon {

/// Makes a certificate for a maker's provisioning key, signed by that key itself. It is good for
/// signatures only, names the purpose of provisioning, does not vouch for other certificates and
/// never expires.
/// @throws ImageError with ImageFault::kKey when it cannot be made.
UniqueCertificate createProvisioningCertificate(EVP_PKEY* key);

}  // namespace quillon
