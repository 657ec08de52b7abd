#include "makers.h"

#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>

namespace quillon::test {

namespace {

struct CmsRelease
{
    void operator()(CMS_ContentInfo* cms) const { CMS_ContentInfo_free(cms); }
};

void setName(X509_NAME* name, const std::string& text)
{
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.c_str());
    EXPECT_EQ(X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, bytes, -1, -1, 0), 1);
}

void addExtension(X509* certificate, int id, const char* value)
{
    X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, nullptr, id, value);
    EXPECT_EQ(X509_add_ext(certificate, extension, -1), 1);
    X509_EXTENSION_free(extension);
}

std::string takeText(BIO* bio)
{
    char* text = nullptr;
    const long length = BIO_get_mem_data(bio, &text);
    return {text, static_cast<std::size_t>(length)};
}

}  // namespace

UniqueKey curveKey(const char* curve)
{
    return UniqueKey(EVP_EC_gen(curve));
}

UniqueKey rsaKey(unsigned bits)
{
    return UniqueKey(EVP_RSA_gen(bits));
}

Maker makeMaker(const CertificateWishes& wishes, UniqueKey key)
{
    static long serial = 0;
    UniqueCertificate made(X509_new());
    X509* certificate = made.get();
    X509_set_version(certificate, X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), ++serial);
    setName(X509_get_subject_name(certificate), wishes.name);
    X509_set_issuer_name(certificate, X509_get_subject_name(wishes.issuer != nullptr
                                                                ? wishes.issuer->certificate.get()
                                                                : certificate));
    X509_gmtime_adj(X509_getm_notBefore(certificate), -7200);
    X509_gmtime_adj(X509_getm_notAfter(certificate), wishes.endsAfter);
    X509_set_pubkey(certificate, key.get());
    addExtension(certificate, NID_basic_constraints,
                 wishes.isAuthority ? "critical,CA:TRUE" : "critical,CA:FALSE");
    if (*wishes.purpose != '\0') {
        addExtension(certificate, NID_ext_key_usage, wishes.purpose);
    }
    EVP_PKEY* issuerKey = wishes.issuer != nullptr ? wishes.issuer->key.get() : key.get();
    EXPECT_GT(X509_sign(certificate, issuerKey, wishes.digest), 0);
    return {std::move(key), std::move(made)};
}

std::string pemOf(const Maker& maker)
{
    const UniqueBio bio(BIO_new(BIO_s_mem()));
    EXPECT_EQ(PEM_write_bio_X509(bio.get(), maker.certificate.get()), 1);
    return takeText(bio.get());
}

std::string signedBy(const SigningWishes& wishes, const std::string& content)
{
    const UniqueBio source(BIO_new_mem_buf(content.data(), static_cast<int>(content.size())));
    const unsigned flags = CMS_BINARY | CMS_PARTIAL | CMS_NOSMIMECAP | wishes.flags;
    const std::unique_ptr<CMS_ContentInfo, CmsRelease> cms(
        CMS_sign(nullptr, nullptr, nullptr, source.get(), flags));
    EXPECT_EQ(CMS_set1_eContentType(cms.get(), OBJ_nid2obj(wishes.contentType)), 1);
    for (const Maker* signer : wishes.signers) {
        EXPECT_NE(CMS_add1_signer(cms.get(), signer->certificate.get(), signer->key.get(),
                                  wishes.digest, flags),
                  nullptr);
    }
    for (const Maker* more : wishes.bringsAlong) {
        EXPECT_EQ(CMS_add1_cert(cms.get(), more->certificate.get()), 1);
    }
    if (wishes.signers.empty()) {  // which CMS_final does not want
        ASN1_OCTET_STRING** inside = CMS_get0_content(cms.get());
        ASN1_OCTET_STRING_free(*inside);
        *inside = ASN1_OCTET_STRING_new();
        EXPECT_EQ(ASN1_STRING_set(*inside, content.data(), static_cast<int>(content.size())), 1);
    } else {
        EXPECT_EQ(CMS_final(cms.get(), source.get(), nullptr, flags), 1);
    }
    const UniqueBio der(BIO_new(BIO_s_mem()));
    EXPECT_EQ(i2d_CMS_bio(der.get(), cms.get()), 1);
    return takeText(der.get());
}

std::string signedBy(const Maker& maker, const std::string& content)
{
    SigningWishes wishes;
    wishes.signers = {&maker};
    return signedBy(wishes, content);
}

std::string contentFor(const std::string& item, const std::string& payload)
{
    return "QUILLON-PROVISION 1\nitem " + item + "\n\n" + payload;
}

std::string packageBy(const Maker& maker, const std::string& item, const std::string& payload)
{
    return signedBy(maker, contentFor(item, payload));
}

Certificates trusting(const std::vector<const Maker*>& makers)
{
    Certificates certificates;
    for (const Maker* maker : makers) {
        certificates.emplace_back(X509_dup(maker->certificate.get()));
    }
    return certificates;
}

}  // namespace quillon::test
