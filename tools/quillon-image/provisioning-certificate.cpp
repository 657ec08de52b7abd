#include "tools/quillon-image/provisioning-certificate.h"

#include <openssl/bn.h>
#include <openssl/x509v3.h>

#include "platform/storage/signed-package.h"
#include "platform/verifier/image-error.h"

namespace quillon {
namespace {

constexpr long kVersion3 = 2;  // counted from 0

constexpr int kSerialBits = 127;
constexpr char kNeverExpires[] = "99991231235959Z";
const unsigned char kName[] = "Quillon provisioning";

using UniqueNumber = std::unique_ptr<BIGNUM, ReleaseWith<&BN_free>>;
using UniqueExtension = std::unique_ptr<X509_EXTENSION, ReleaseWith<&X509_EXTENSION_free>>;

/// Two keys' certificates have the same name, so their numbers have to differ.
bool setRandomNumber(X509* certificate)
{
    const UniqueNumber number(BN_new());
    return number && BN_rand(number.get(), kSerialBits, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ANY) == 1 &&
           BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(certificate)) != nullptr;
}

bool setNames(X509* certificate)
{
    X509_NAME* name = X509_get_subject_name(certificate);
    return X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, kName, -1, -1, 0) == 1 &&
           X509_set_issuer_name(certificate, name) == 1;
}

bool setTimes(X509* certificate)
{
    return X509_gmtime_adj(X509_getm_notBefore(certificate), 0) != nullptr &&
           ASN1_TIME_set_string(X509_getm_notAfter(certificate), kNeverExpires) == 1;
}

bool addExtension(X509* certificate, int id, const char* value)
{
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
    const UniqueExtension extension(X509V3_EXT_conf_nid(nullptr, &context, id, value));
    return extension && X509_add_ext(certificate, extension.get(), -1) == 1;
}

}  // namespace

UniqueCertificate createProvisioningCertificate(EVP_PKEY* key)
{
    UniqueCertificate certificate(X509_new());
    X509* made = certificate.get();
    const bool done = made != nullptr && X509_set_version(made, kVersion3) == 1 &&
                      setRandomNumber(made) && setNames(made) && setTimes(made) &&
                      X509_set_pubkey(made, key) == 1 &&
                      addExtension(made, NID_basic_constraints, "critical,CA:FALSE") &&
                      addExtension(made, NID_key_usage, "critical,digitalSignature") &&
                      addExtension(made, NID_ext_key_usage, kProvisioningPurpose) &&
                      addExtension(made, NID_subject_key_identifier, "hash") &&
                      X509_sign(made, key, EVP_sha256()) > 0;
    if (!done) {
        throw ImageError(ImageFault::kKey, "provisioning certificate cannot be made");
    }
    return certificate;
}

}  // namespace quillon
