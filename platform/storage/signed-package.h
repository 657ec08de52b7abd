#pragma once

#include <openssl/evp.h>

#include <string>
#include <string_view>

#include "base/secret-bytes.h"
#include "platform/storage/maker-certificates.h"

namespace quillon {

/// A provisioning package: CMS SignedData in DER form with its content inside of it.

struct SignedContent
{
    SecretBytes bytes;
    std::string signer;  ///< the subject of the signer's certificate, in one line
};

/// The purpose that a certificate names as an extended key usage when it is for provisioning
/// packages. The number is a UUID, f21320a4-1233-4285-9a96-3bfa968a493a, in the arc for them.
constexpr char kProvisioningPurpose[] = "2.25.321772490656420471694796864872059128122";

/// Checks a package's signature and gives what was signed.
///
/// There has to be one signer, whose certificate is one of the trusted ones or was issued by one of
/// them, if need be over certificates that the package brings along. SHA-256 or a longer digest of
/// that family, RSA from 2048 bits on or an elliptic curve from 256 bits on. What the certificates
/// say about the time is not looked at.
/// @param wantsPurpose  whether the signer's certificate has to name kProvisioningPurpose; without
///                      that, what the certificates say they are for is not looked at
/// @throws ImageError: ImageFault::kFormat for what is no such package, ImageFault::kSignature when
///         the signature does not hold or nobody trusted made it. The text has no file name.
/// Thread: any.
SignedContent openSignedPackage(std::string_view package, const Certificates& trusted,
                                bool wantsPurpose = false);

/// Gives what is inside of a package, whoever signed it and whether or not the signature holds.
/// @throws ImageError with ImageFault::kFormat for what is no such package.
SecretBytes peekIntoPackage(std::string_view package);

/// Makes a package.
/// @param certificates  the signer's first, then those that lead from it to one the devices trust
/// @throws ImageError: ImageFault::kKey when key and certificate do not belong together or when a
///         device would refuse such a key.
std::string makeSignedPackage(const SecretBytes& content, EVP_PKEY* key,
                              const Certificates& certificates);

}  // namespace quillon
