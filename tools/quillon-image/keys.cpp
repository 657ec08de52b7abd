#include "tools/quillon-image/keys.h"

#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <filesystem>

#include "platform/storage/signed-package.h"
#include "platform/verifier/hex-text.h"
#include "platform/verifier/image-error.h"
#include "platform/verifier/input-file.h"
#include "platform/verifier/public-key.h"
#include "tools/quillon-image/atomic-file.h"
#include "tools/quillon-image/provisioning-package.h"
#include "tools/quillon-image/token-key.h"

namespace quillon {
namespace {

constexpr std::size_t kLargestFile = 65536;
constexpr std::size_t kImageKeyItemSize = 32;
constexpr std::size_t kUsedItemSize = 16;
constexpr int kSigningKeyBits = 4096;
constexpr char kImageKeyItem[] = "quillon";
constexpr char kNoPrivateKey[] = "not a private key in PEM form without a pass phrase";
constexpr int kProvisioningCurve = NID_X9_62_prime256v1;  // P-256

// Of the provisioning certificate:
constexpr long kVersion3 = 2;  // counted from 0
constexpr int kSerialBits = 127;
constexpr char kNeverExpires[] = "99991231235959Z";
const unsigned char kCertificateName[] = "Quillon provisioning";

using UniqueNumber = std::unique_ptr<BIGNUM, ReleaseWith<&BN_free>>;
using UniqueExtension = std::unique_ptr<X509_EXTENSION, ReleaseWith<&X509_EXTENSION_free>>;

[[noreturn]] void refuseToCreate(const char* what)
{
    throw ImageError(ImageFault::kKey, std::string(what) + " cannot be made");
}

/// @param configure  says what key of that type it is to be
template <typename Configure>
UniqueKey createKey(const char* what, int type, Configure configure)
{
    const UniqueKeyContext context(EVP_PKEY_CTX_new_id(type, nullptr));
    EVP_PKEY* key = nullptr;
    if (!context || EVP_PKEY_keygen_init(context.get()) != 1 || configure(context.get()) != 1 ||
        EVP_PKEY_keygen(context.get(), &key) != 1) {
        refuseToCreate(what);
    }
    return UniqueKey(key);
}

/// @param write  writes the PEM form to a BIO
template <typename Write>
std::string pemText(const char* what, Write write)
{
    const UniqueBio bio(BIO_new(BIO_s_secmem()));
    if (!bio || write(bio.get()) != 1) {
        refuseToCreate(what);
    }
    char* text = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &text);
    return {text, static_cast<std::size_t>(length)};
}

std::string privateKeyText(EVP_PKEY* key)
{
    return pemText("private key", [key](BIO* bio) {
        return PEM_write_bio_PKCS8PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr);
    });
}

std::string publicKeyText(EVP_PKEY* key)
{
    return pemText("public key", [key](BIO* bio) { return PEM_write_bio_PUBKEY(bio, key); });
}

std::string certificateText(X509* certificate)
{
    return pemText("provisioning certificate",
                   [certificate](BIO* bio) { return PEM_write_bio_X509(bio, certificate); });
}

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
    return X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, kCertificateName, -1, -1, 0) == 1 &&
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

/// Makes a certificate for a maker's provisioning key, signed by that key itself. It is good for
/// signatures only, names the purpose of provisioning, does not vouch for other certificates and
/// never expires.
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

std::string createImageKeyItem()
{
    std::string item(kImageKeyItemSize, '\0');
    if (RAND_priv_bytes(reinterpret_cast<unsigned char*>(item.data()),
                        static_cast<int>(item.size())) != 1) {
        refuseToCreate("image key");
    }
    return item;
}

void makeDirectory(const std::filesystem::path& directory)
{
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    if (error) {
        throw ImageError(ImageFault::kFile,
                         directory.string() + ": cannot be made: " + error.message());
    }
}

void requireNoKeys(const std::filesystem::path& directory)
{
    for (const char* name : {kSigningKeyFile, kPublicKeyFile, kImageKeyFile, kProvisioningKeyFile,
                             kProvisioningCertificateFile, kProvisioningPackageFile}) {
        const std::filesystem::path file = directory / name;
        std::error_code error;
        if (std::filesystem::symlink_status(file, error).type() !=
            std::filesystem::file_type::not_found) {
            throw ImageError(ImageFault::kFile, file.string() + ": exists already");
        }
    }
}

}  // namespace

ImageKey imageKeyOf(const std::string& item)
{
    if (item.size() < kUsedItemSize) {
        throw ImageError(ImageFault::kKey, "image key has " + std::to_string(item.size()) +
                                               " bytes, at least 16 are needed");
    }
    const std::string text =
        hexText(reinterpret_cast<const unsigned char*>(item.data()), kUsedItemSize);
    ImageKey key{};
    std::copy(text.begin(), text.end(), key.begin());
    return key;
}

ImageKey loadImageKey(const std::string& path)
{
    const std::string item = readSmallFile(path, kLargestFile);
    try {
        return imageKeyOf(item);
    } catch (const ImageError& error) {
        throw ImageError(error.fault(), path + ": " + error.what());
    }
}

UniqueKey loadPrivateKey(const std::string& path)
{
    return isTokenKey(path) ? openTokenKey(path)
                            : loadKey(path, &PEM_read_bio_PrivateKey, kNoPrivateKey);
}

UniqueKey loadSigningKey(const std::string& path)
{
    UniqueKey key = loadPrivateKey(path);
    requireRsa4096(key.get(), isTokenKey(path) ? tokenKeyName(path) : path);
    return key;
}

void createKeys(const std::string& directory, bool replace)
{
    const std::filesystem::path place(directory);
    makeDirectory(place);
    if (!replace) {
        requireNoKeys(place);
    }

    const UniqueKey key = createKey("signing key", EVP_PKEY_RSA, [](EVP_PKEY_CTX* context) {
        return EVP_PKEY_CTX_set_rsa_keygen_bits(context, kSigningKeyBits);
    });
    const UniqueKey provisioningKey =
        createKey("provisioning key", EVP_PKEY_EC, [](EVP_PKEY_CTX* context) {
            return EVP_PKEY_CTX_set_ec_paramgen_curve_nid(context, kProvisioningCurve);
        });
    const std::string item = createImageKeyItem();
    Certificates certificates;
    certificates.push_back(createProvisioningCertificate(provisioningKey.get()));

    writeFile(place / kSigningKeyFile, privateKeyText(key.get()), Audience::kOwnerOnly);
    writeFile(place / kPublicKeyFile, publicKeyText(key.get()), Audience::kEveryone);
    writeFile(place / kImageKeyFile, item, Audience::kOwnerOnly);
    writeFile(place / kProvisioningKeyFile, privateKeyText(provisioningKey.get()),
              Audience::kOwnerOnly);
    writeFile(place / kProvisioningCertificateFile, certificateText(certificates.front().get()),
              Audience::kEveryone);
    writeFile(place / kProvisioningPackageFile,
              encodeProvisioningPackage(kImageKeyItem, item, provisioningKey.get(), certificates),
              Audience::kOwnerOnly);
}

}  // namespace quillon
