/// Makers of provisioning packages, honest and otherwise.
#pragma once

#include <openssl/cms.h>

#include <string>
#include <vector>

#include "base/handles.h"
#include "platform/storage/maker-certificates.h"

namespace quillon::test {

struct Maker
{
    UniqueKey key;
    UniqueCertificate certificate;
};

UniqueKey curveKey(const char* curve = "P-256");
UniqueKey rsaKey(unsigned bits);

struct CertificateWishes
{
    std::string name = "a maker";
    const Maker* issuer = nullptr;  ///< null: signed with its own key
    bool isAuthority = false;
    const char* purpose = "";  ///< of its key, for example "serverAuth"; nothing: any
    long endsAfter = 3600;     ///< seconds from now on; may lie in the past
    const EVP_MD* digest = EVP_sha256();
};

Maker makeMaker(const CertificateWishes& wishes = {}, UniqueKey key = curveKey());

std::string pemOf(const Maker& maker);

struct SigningWishes
{
    std::vector<const Maker*> signers;
    std::vector<const Maker*> bringsAlong;  ///< whose certificates go with it
    const EVP_MD* digest = EVP_sha256();
    unsigned flags = 0;  ///< CMS_DETACHED, CMS_NOATTR, CMS_NOCERTS
    int contentType = NID_pkcs7_data;
};

/// CMS SignedData made with OpenSSL directly, in DER form.
std::string signedBy(const SigningWishes& wishes, const std::string& content);
std::string signedBy(const Maker& maker, const std::string& content);

/// What stands inside of a package.
std::string contentFor(const std::string& item, const std::string& payload);

/// A well-formed package.
std::string packageBy(const Maker& maker, const std::string& item, const std::string& payload);

/// Copies of their certificates.
Certificates trusting(const std::vector<const Maker*>& makers);

}  // namespace quillon::test
