#include "platform/storage/signed-package.h"

#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <memory>

#include "platform/storage/provisioning-content.h"
#include "platform/verifier/image-error.h"

namespace quillon {
namespace {

constexpr int kLeastRsaBits = 2048;
constexpr int kLeastCurveBits = 256;
constexpr int kTwoThousandBitRsaLevel = 2;  // of OpenSSL: no SHA-1 in a chain either
constexpr char kUnsignedContent[] = "QUILLON-PROVISION";

/// The content is a key as a rule.
void releaseWiped(CMS_ContentInfo* cms)
{
    ASN1_OCTET_STRING** content = CMS_get0_content(cms);
    if (content != nullptr && *content != nullptr) {
        OPENSSL_cleanse((*content)->data, static_cast<std::size_t>((*content)->length));
    }
    CMS_ContentInfo_free(cms);
    ERR_clear_error();  // for content of no known kind
}

/// The handles only; the certificates stay their owner's.
void releaseStack(STACK_OF(X509) * stack)
{
    sk_X509_free(stack);
}

using UniqueCms = std::unique_ptr<CMS_ContentInfo, ReleaseWith<&releaseWiped>>;
using UniqueStore = std::unique_ptr<X509_STORE, ReleaseWith<&X509_STORE_free>>;
using UniqueObject = std::unique_ptr<ASN1_OBJECT, ReleaseWith<&ASN1_OBJECT_free>>;
using UniqueUsages = std::unique_ptr<EXTENDED_KEY_USAGE, ReleaseWith<&EXTENDED_KEY_USAGE_free>>;
using UniqueStack = std::unique_ptr<STACK_OF(X509), ReleaseWith<&releaseStack>>;

ImageError notAPackage(const std::string& reason)
{
    return {ImageFault::kFormat, reason};
}

ImageError notTrusted(const std::string& reason)
{
    return {ImageFault::kSignature, reason};
}

/// OpenSSL's last word, after which its queue is empty.
std::string opensslReason()
{
    const char* data = nullptr;
    int flags = 0;
    const unsigned long code = ERR_peek_last_error_line_data(nullptr, nullptr, &data, &flags);
    const char* reason = ERR_reason_error_string(code);
    std::string text = reason != nullptr ? reason : "no reason given";
    if ((flags & ERR_TXT_STRING) != 0 && data != nullptr && *data != '\0') {
        text.append(": ").append(data);
    }
    ERR_clear_error();
    return text;
}

std::string subjectOf(X509* certificate)
{
    const UniqueBio text(BIO_new(BIO_s_mem()));
    if (!text || X509_NAME_print_ex(text.get(), X509_get_subject_name(certificate), 0,
                                    XN_FLAG_ONELINE) < 0) {
        return "?";
    }
    char* start = nullptr;
    const long length = BIO_get_mem_data(text.get(), &start);
    return length > 0 ? std::string(start, static_cast<std::size_t>(length)) : std::string();
}

UniqueCms parse(std::string_view package)
{
    if (package.size() > kLargestPackage) {
        throw notAPackage("it is too large");
    }
    if (package.substr(0, sizeof kUnsignedContent - 1) == kUnsignedContent) {
        throw notAPackage("it bears no signature; quillon-image provision makes one that does");
    }
    const auto* at = reinterpret_cast<const unsigned char*>(package.data());
    const unsigned char* const end = at + package.size();
    ERR_clear_error();
    UniqueCms cms(d2i_CMS_ContentInfo(nullptr, &at, static_cast<long>(package.size())));
    ERR_clear_error();
    if (!cms || OBJ_obj2nid(CMS_get0_type(cms.get())) != NID_pkcs7_signed) {
        throw notAPackage("it is not CMS SignedData in DER form");
    }
    if (at != end) {
        throw notAPackage("something follows its signature");
    }
    return cms;
}

SecretBytes bytesOf(const ASN1_OCTET_STRING* text)
{
    return {text->data, text->data + text->length};
}

const ASN1_OCTET_STRING* contentOf(CMS_ContentInfo* cms)
{
    ASN1_OCTET_STRING** content = CMS_get0_content(cms);
    if (content == nullptr || *content == nullptr ||
        OBJ_obj2nid(CMS_get0_eContentType(cms)) != NID_pkcs7_data) {
        throw notAPackage("its content is not inside of it");
    }
    return *content;
}

CMS_SignerInfo* onlySignerOf(CMS_ContentInfo* cms)
{
    STACK_OF(CMS_SignerInfo)* signers = CMS_get0_SignerInfos(cms);
    if (signers == nullptr || sk_CMS_SignerInfo_num(signers) != 1) {
        throw notAPackage("it does not have exactly one signer");
    }
    CMS_SignerInfo* signer = sk_CMS_SignerInfo_value(signers, 0);
    if (CMS_signed_get_attr_count(signer) <= 0) {
        throw notAPackage("it has no signed attributes");
    }
    return signer;
}

void requireStrongDigest(CMS_SignerInfo* signer)
{
    X509_ALGOR* digest = nullptr;
    CMS_SignerInfo_get0_algs(signer, nullptr, nullptr, &digest, nullptr);
    const ASN1_OBJECT* name = nullptr;
    X509_ALGOR_get0(&name, nullptr, nullptr, digest);
    const int id = OBJ_obj2nid(name);
    if (id != NID_sha256 && id != NID_sha384 && id != NID_sha512) {
        throw notTrusted("its digest is not SHA-256, SHA-384 or SHA-512");
    }
}

bool isStrong(const EVP_PKEY* key)
{
    switch (EVP_PKEY_base_id(key)) {
        case EVP_PKEY_RSA:
        case EVP_PKEY_RSA_PSS:
            return EVP_PKEY_bits(key) >= kLeastRsaBits;
        case EVP_PKEY_EC:
            return EVP_PKEY_bits(key) >= kLeastCurveBits;
        default:
            return false;
    }
}

bool isForProvisioning(X509* certificate)
{
    const UniqueUsages usages(static_cast<EXTENDED_KEY_USAGE*>(
        X509_get_ext_d2i(certificate, NID_ext_key_usage, nullptr, nullptr)));
    const UniqueObject wanted(OBJ_txt2obj(kProvisioningPurpose, 1));
    for (int i = 0; wanted && usages && i < sk_ASN1_OBJECT_num(usages.get()); ++i) {
        if (OBJ_cmp(sk_ASN1_OBJECT_value(usages.get(), i), wanted.get()) == 0) {
            return true;
        }
    }
    return false;
}

UniqueStack stackOf(const Certificates& certificates)
{
    UniqueStack stack(sk_X509_new_null());
    for (const UniqueCertificate& certificate : certificates) {
        if (!stack || sk_X509_push(stack.get(), certificate.get()) <= 0) {
            throw std::bad_alloc();
        }
    }
    return stack;
}

UniqueStore storeOf(const Certificates& trusted)
{
    UniqueStore store(X509_STORE_new());
    if (!store) {
        throw std::bad_alloc();
    }
    X509_VERIFY_PARAM* rules = X509_STORE_get0_param(store.get());
    // A trusted certificate need not be a root's. Keys are provisioned early at the first start,
    // when a device without a battery takes it for 1970: the time counts for nothing.
    X509_VERIFY_PARAM_set_flags(rules, X509_V_FLAG_PARTIAL_CHAIN | X509_V_FLAG_NO_CHECK_TIME);
    // The directory is for this one purpose, so a certificate need not say that it is for mail.
    X509_VERIFY_PARAM_set_purpose(rules, X509_PURPOSE_ANY);
    X509_VERIFY_PARAM_set_auth_level(rules, kTwoThousandBitRsaLevel);
    for (const UniqueCertificate& certificate : trusted) {
        if (X509_STORE_add_cert(store.get(), certificate.get()) != 1) {
            throw std::bad_alloc();
        }
    }
    return store;
}

}  // namespace

SignedContent openSignedPackage(std::string_view package, const Certificates& trusted,
                                bool wantsPurpose)
{
    const UniqueCms cms = parse(package);
    const ASN1_OCTET_STRING* content = contentOf(cms.get());
    CMS_SignerInfo* signer = onlySignerOf(cms.get());
    requireStrongDigest(signer);

    // The signer's certificate may be left out of a package when it is itself a trusted one.
    const UniqueStack known = stackOf(trusted);
    const UniqueStore store = storeOf(trusted);
    if (CMS_verify(cms.get(), known.get(), store.get(), nullptr, nullptr, CMS_BINARY) != 1) {
        throw notTrusted(opensslReason());
    }
    EVP_PKEY* key = nullptr;
    X509* certificate = nullptr;
    CMS_SignerInfo_get0_algs(signer, &key, &certificate, nullptr, nullptr);
    if (key == nullptr || certificate == nullptr || !isStrong(key)) {
        throw notTrusted("its signer's key is neither RSA of 2048 bits nor a curve of 256 bits");
    }
    if (wantsPurpose && !isForProvisioning(certificate)) {
        throw notTrusted(
            std::string("its signer's certificate is not for provisioning: it lacks the "
                        "extended key usage ") +
            kProvisioningPurpose);
    }
    return {bytesOf(content), subjectOf(certificate)};
}

SecretBytes peekIntoPackage(std::string_view package)
{
    const UniqueCms cms = parse(package);
    return bytesOf(contentOf(cms.get()));
}

std::string makeSignedPackage(const SecretBytes& content, EVP_PKEY* key,
                              const Certificates& certificates)
{
    X509* certificate = certificates.front().get();
    if (X509_check_private_key(certificate, key) != 1) {
        ERR_clear_error();
        throw ImageError(ImageFault::kKey, "the certificate is not that of the signing key");
    }
    if (!isStrong(key)) {
        throw ImageError(ImageFault::kKey,
                         "the signing key is neither RSA of 2048 bits nor a curve of 256 bits");
    }
    const UniqueBio source(BIO_new_mem_buf(content.data(), static_cast<int>(content.size())));
    constexpr unsigned kFlags = CMS_BINARY | CMS_PARTIAL | CMS_NOSMIMECAP;
    const UniqueCms cms(CMS_sign(nullptr, nullptr, nullptr, source.get(), kFlags));
    bool made = cms && source &&
                CMS_add1_signer(cms.get(), certificate, key, EVP_sha256(), kFlags) != nullptr;
    for (auto more = certificates.begin() + 1; made && more != certificates.end(); ++more) {
        made = CMS_add1_cert(cms.get(), more->get()) == 1;
    }
    made = made && CMS_final(cms.get(), source.get(), nullptr, kFlags) == 1;
    unsigned char* der = nullptr;
    const int length = made ? i2d_CMS_ContentInfo(cms.get(), &der) : -1;
    if (length <= 0) {
        throw ImageError(ImageFault::kKey, "the package cannot be signed: " + opensslReason());
    }
    std::string package(reinterpret_cast<const char*>(der), static_cast<std::size_t>(length));
    OPENSSL_clear_free(der, static_cast<std::size_t>(length));
    if (package.size() > kLargestPackage) {
        throw ImageError(ImageFault::kUsage, "the certificates make the package too large");
    }
    return package;
}

}  // namespace quillon
