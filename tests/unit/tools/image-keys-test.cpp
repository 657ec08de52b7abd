// What keygen makes, and which key files are of use.

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>

#include "base/secret-bytes.h"
#include "platform/storage/signed-package.h"
#include "platform/verifier/public-key.h"
#include "support/texts.h"
#include "tools/quillon-image/provisioning-package.h"
#include "unit/tools/image-files.h"

namespace quillon::test {
namespace {

class ImageKeys : public ImageFiles
{
};

TEST_F(ImageKeys, AreSixFilesOfWhichTheSecretOnesAreTheOwnersOnly)
{
    createKeys(directory + "new/keys", false);

    const std::string keys = directory + "new/keys/";
    EXPECT_EQ(modeOf(keys + "signing-key.pem"), 0600U);
    EXPECT_EQ(modeOf(keys + "signing-key.pub.pem"), 0644U);
    EXPECT_EQ(modeOf(keys + "image-key.bin"), 0600U);
    EXPECT_EQ(modeOf(keys + "provisioning-key.pem"), 0600U);
    EXPECT_EQ(modeOf(keys + "provisioning-certificate.pem"), 0644U);
    EXPECT_EQ(modeOf(keys + "00000066.bin"), 0600U);
    EXPECT_EQ(readAll(keys + "image-key.bin").size(), 32U);
    EXPECT_EQ(keyIdOf(loadSigningKey(keys + "signing-key.pem").get()),
              keyIdOf(loadPublicKey(keys + "signing-key.pub.pem").get()));
}

TEST_F(ImageKeys, ThePackageProvisionsTheImageKeyAsTheItemQuillon)
{
    const std::string item = readAll(keyPath("a", kImageKeyFile));
    const Certificates maker = loadCertificateFile(keyPath("a", kProvisioningCertificateFile));

    const SecretBytes content =
        openSignedPackage(readAll(keyPath("a", kProvisioningPackageFile)), maker).bytes;
    EXPECT_EQ(std::string(content.begin(), content.end()),
              "QUILLON-PROVISION 1\nitem quillon\n\n" + item);

    const Certificates other = loadCertificateFile(keyPath("b", kProvisioningCertificateFile));
    EXPECT_EQ(
        faultOf([&] { openSignedPackage(readAll(keyPath("a", kProvisioningPackageFile)), other); }),
        ImageFault::kSignature);
}

TEST_F(ImageKeys, TheCertificateNeverExpiresAndVouchesForNobody)
{
    const Certificates maker = loadCertificateFile(keyPath("a", kProvisioningCertificateFile));
    ASSERT_EQ(maker.size(), 1U);
    X509* certificate = maker.front().get();
    EXPECT_EQ(X509_check_ca(certificate), 0);
    EXPECT_EQ(X509_get_key_usage(certificate), KU_DIGITAL_SIGNATURE);
    const ASN1_TIME* end = X509_get0_notAfter(certificate);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(ASN1_STRING_get0_data(end))),
              "99991231235959Z");
    const Certificates other = loadCertificateFile(keyPath("b", kProvisioningCertificateFile));
    EXPECT_NE(X509_issuer_and_serial_cmp(certificate, other.front().get()), 0);
}

TEST_F(ImageKeys, APackageNeedsAUsableNameAndPayload)
{
    const UniqueKey key = loadPrivateKey(keyPath("a", kProvisioningKeyFile));
    const Certificates maker = loadCertificateFile(keyPath("a", kProvisioningCertificateFile));
    const auto faultWith = [&](const std::string& name, const std::string& payload) {
        return faultOf([&] { encodeProvisioningPackage(name, payload, key.get(), maker); });
    };
    EXPECT_EQ(faultWith("", "x"), ImageFault::kUsage);
    EXPECT_EQ(faultWith(".hidden", "x"), ImageFault::kUsage);
    EXPECT_EQ(faultWith("a/b", "x"), ImageFault::kUsage);
    EXPECT_EQ(faultWith("a\nb", "x"), ImageFault::kUsage);
    EXPECT_EQ(faultWith("quillon.cred", "x"), ImageFault::kUsage);
    EXPECT_EQ(faultWith(std::string(65, 'a'), "x"), ImageFault::kUsage);
    EXPECT_EQ(faultWith("quillon", ""), ImageFault::kUsage);
    EXPECT_EQ(faultWith("quillon", std::string(65537, 'x')), ImageFault::kUsage);
    EXPECT_NO_THROW(
        encodeProvisioningPackage("A-z_0.9", std::string(65536, 'x'), key.get(), maker));
}

TEST_F(ImageKeys, ThatAreThereAreNotReplacedUnasked)
{
    writeFile(directory + "00000066.bin", "precious");

    std::string line;
    EXPECT_EQ(faultOf([&] { createKeys(directory, false); }, &line), ImageFault::kFile);
    EXPECT_EQ(line, directory + "00000066.bin: exists already");
    expectTexts(names(), {"00000066.bin"});
    EXPECT_EQ(readAll(directory + "00000066.bin"), "precious");

    createKeys(directory, true);
    EXPECT_EQ(names().size(), 6U);
    EXPECT_NE(readAll(directory + "00000066.bin"), "precious");
    EXPECT_EQ(modeOf(directory + "00000066.bin"), 0600U);
}

TEST_F(ImageKeys, ADirectoryThatCannotBeMadeIsNamed)
{
    writeFile(directory + "file", "");

    std::string line;
    EXPECT_EQ(faultOf([&] { createKeys(directory + "file/keys", false); }, &line),
              ImageFault::kFile);
    expectText(line, like("*" + directory + "file/keys: cannot be made: *"));
}

TEST_F(ImageKeys, ASigningKeyIsAnRsaKeyOf4096BitsWithoutAPassPhrase)
{
    const auto faultWith = [&](EVP_PKEY* key, const EVP_CIPHER* cipher) {
        const std::string path = directory + "key.pem";
        FILE* file = std::fopen(path.c_str(), "w");
        EXPECT_NE(file, nullptr);
        char passPhrase[] = "secret";
        EXPECT_EQ(
            PEM_write_PKCS8PrivateKey(file, key, cipher, cipher == nullptr ? nullptr : passPhrase,
                                      cipher == nullptr ? 0 : 6, nullptr, nullptr),
            1);
        EXPECT_EQ(std::fclose(file), 0);
        return faultOf([&] { loadSigningKey(path); });
    };
    const UniqueKey good = loadSigningKey(keyPath("a", kSigningKeyFile));
    const UniqueKey shorter(EVP_RSA_gen(2048));
    const UniqueKey elliptic(EVP_EC_gen("P-256"));

    EXPECT_EQ(faultWith(shorter.get(), nullptr), ImageFault::kKey);
    EXPECT_EQ(faultWith(elliptic.get(), nullptr), ImageFault::kKey);
    EXPECT_EQ(faultWith(good.get(), EVP_aes_256_cbc()), ImageFault::kKey);
    EXPECT_EQ(faultOf([&] { loadSigningKey(keyPath("a", kPublicKeyFile)); }), ImageFault::kKey);
    EXPECT_EQ(faultOf([&] { loadSigningKey(keyPath("a", kProvisioningKeyFile)); }),
              ImageFault::kKey);
    EXPECT_EQ(faultOf([&] { loadSigningKey(directory + "missing"); }), ImageFault::kFile);
}

}  // namespace
}  // namespace quillon::test
