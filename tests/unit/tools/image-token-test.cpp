// Signing keys that stay in a token: SoftHSM plays it.

#include "support/sanitizers.h"
#include "unit/tools/image-program.h"

namespace quillon::test {
namespace {

constexpr char kModule[] = "/usr/lib/softhsm/libsofthsm2.so";

class TokenKey : public ImageProgram
{
protected:
    void SetUp() override
    {
        ImageProgram::SetUp();
        if (shell("command -v softhsm2-util") != 0 || !std::filesystem::exists(kModule) ||
            shell("openssl engine pkcs11") != 0) {
            GTEST_SKIP() << "softhsm2 or libengine-pkcs11-openssl is not installed";
        }
        std::filesystem::create_directory(directory + "tokens");
        writeFile(directory + "softhsm.conf", "directories.tokendir = " + directory + "tokens\n");
        environment = "export SOFTHSM2_CONF='" + directory +
                      "softhsm.conf' PKCS11_MODULE_PATH=" + kModule + "; ";
        inToken("--init-token --free --label maker --pin 1234 --so-pin 5678");
        putIntoToken(kSigningKeyFile, "signing", "a1");
        putIntoToken(kProvisioningKeyFile, "provisioning", "a2");
    }

    void inToken(const std::string& arguments)
    {
        ASSERT_EQ(shell(environment + "softhsm2-util " + arguments), 0) << out << err;
    }

    void putIntoToken(const char* key, const std::string& label, const std::string& id)
    {
        inToken("--import '" + keyPath("a", key) + "' --token maker --pin 1234 --label " + label +
                " --id " + id);
    }

    int withToken(const std::string& arguments)
    {
        return shell(environment + "cd '" + directory + "' && KEYS='" QUILLON_TEST_KEYS "/a'; " +
                     IMAGE_PROGRAM " " + arguments);
    }

    int build(const std::string& key, const std::string& more = "")
    {
        return withToken(
            "build --version 1 --payload payload --key $KEYS/image-key.bin --output "
            "out.bin --sign '" +
            key + "' " + more);
    }

    void expectRefused(const std::string& key, const std::string& reason)
    {
        EXPECT_EQ(build(key), 6);
        expectText(err, like("quillon-image: " + reason));
        EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
        EXPECT_FALSE(std::filesystem::exists(directory + "out.bin"));
    }

    std::string environment;
};

constexpr char kKey[] = "pkcs11:token=maker;object=signing;type=private?pin-value=1234";

TEST_F(TokenKey, SignsImages)
{
    for (const char* purpose : {"", "--module out --model TV --counter 7"}) {
        ASSERT_EQ(build(kKey, purpose), 0) << err;
        EXPECT_EQ(err, "");
        EXPECT_EQ(run("verify out.bin --model TV --public $KEYS/signing-key.pub.pem"), 0) << err;
    }
}

TEST_F(TokenKey, SignsReproduciblyAsAFileDoes)
{
    ASSERT_EQ(build(kKey, "--reproducible"), 0) << err;
    const std::string signedByToken = take("out.bin");
    ASSERT_EQ(build(keyPath("a", kSigningKeyFile), "--reproducible"), 0) << err;
    EXPECT_TRUE(readAll(directory + "out.bin") == signedByToken);
}

TEST_F(TokenKey, SignsImagesAnewSticksAndProvisioningPackages)
{
    makeImage(image, "b", "2.0", "firmware");
    ASSERT_EQ(
        withToken("resign tuner.bin --force --output tuner.bin --sign '" + std::string(kKey) + "'"),
        0)
        << err;
    EXPECT_EQ(run("verify tuner.bin --public $KEYS/signing-key.pub.pem"), 0) << err;

    writeFile(directory + "stick.json", R"({"imageKey": ")" + keyPath("a", kImageKeyFile) +
                                            R"(", "signingKey": ")" + kKey +
                                            R"(", "modules": [{"name": "panel", "version": "1",
                                                "payload": "payload"}]})");
    ASSERT_EQ(withToken("stick --manifest stick.json --output stick"), 0) << err;
    EXPECT_EQ(run("verify stick/panel.bin --public $KEYS/signing-key.pub.pem"), 0) << err;

    ASSERT_EQ(withToken("provision --payload payload --certificate "
                        "$KEYS/provisioning-certificate.pem --output p.bin --sign "
                        "'pkcs11:token=maker;object=provisioning?pin-value=1234'"),
              0)
        << err;
    std::filesystem::create_directory(directory + "makers");
    std::filesystem::copy(keyPath("a", kProvisioningCertificateFile), directory + "makers");
    EXPECT_EQ(run("verify p.bin --certificates makers"), 0) << err;
}

TEST_F(TokenKey, TakesThePinFromAFile)
{
    const std::string source = "pkcs11:token=maker;object=signing?pin-source=";
    for (const char* pin : {"1234", "1234\n", "1234\r\n"}) {
        writeFile(directory + "pin", pin);
        ASSERT_EQ(build(source + "file:" + directory + "pin"), 0) << err;
        ASSERT_EQ(build(source + "pin"), 0) << err;
        EXPECT_EQ(run("verify out.bin --public $KEYS/signing-key.pub.pem"), 0) << err;
    }
    EXPECT_EQ(build(source + "file:nowhere"), 3);
    expectText(err, like("*nowhere: cannot be read: *"));
}

TEST_F(TokenKey, ThatCannotBeOpenedIsRefusedInOneLineWithoutItsPin)
{
    lookForNoLeaks();  // the engine keeps some memory of what it cannot open
    const std::string reason = ": the token's key cannot be opened: check the URI, the PIN *";
    expectRefused("pkcs11:token=maker;object=signing",
                  "pkcs11:token=maker;object=signing" + reason);
    expectRefused("pkcs11:token=maker;object=signing?pin-value=4321",
                  "pkcs11:token=maker;object=signing" + reason);
    expectNoText(err, like("*4321*"));
    expectRefused("pkcs11:token=maker;object=missing?pin-value=1234",
                  "pkcs11:token=maker;object=missing" + reason);
    expectRefused("pkcs11:token=missing?pin-value=1234", "pkcs11:token=missing" + reason);
    expectRefused("pkcs11:token=maker;object=provisioning?pin-value=1234",
                  "pkcs11:token=maker;object=provisioning: not an RSA key of 4096 bits\n");
}

TEST_F(TokenKey, NeedsOpensslsWayToTokens)
{
    environment += "export OPENSSL_ENGINES=/nowhere OPENSSL_MODULES=/nowhere; ";
    expectRefused(kKey,
                  "pkcs11:token=maker;object=signing;type=private: OpenSSL cannot reach tokens: "
                  "install the package pkcs11-provider or libengine-pkcs11-openssl\n");
}

}  // namespace
}  // namespace quillon::test
