// Provisioning packages: made, looked into and checked by the program, and with openssl(1) alone.

#include "unit/tools/image-program.h"

namespace quillon::test {
namespace {

constexpr char kProvision[] =
    "provision --payload item --sign $KEYS/provisioning-key.pem "
    "--certificate $KEYS/provisioning-certificate.pem ";

class ImageProvision : public ImageProgram
{
protected:
    void SetUp() override
    {
        ImageProgram::SetUp();
        writeFile(directory + "item", "0123456789abcdef");
        std::filesystem::create_directory(directory + "trusted");
        std::filesystem::copy(keyPath("a", kProvisioningCertificateFile),
                              directory + "trusted/a.pem");
    }
};

TEST_F(ImageProvision, MakesAPackageThatADeviceAccepts)
{
    ASSERT_EQ(run(kProvision), 0) << err;
    expectText(out, like("00000066.bin: item quillon, *"));
    EXPECT_EQ(modeOf(directory + "00000066.bin"), 0600U);
    ASSERT_EQ(run("verify 00000066.bin --certificates trusted --json"), 0) << err;
    EXPECT_EQ(json()["provisioningPackage"], "00000066.bin");
    EXPECT_EQ(json()["item"], "quillon");
    EXPECT_EQ(json()["payloadSize"], 16);
    EXPECT_EQ(json()["size"].asUInt64(), std::filesystem::file_size(directory + "00000066.bin"));
    EXPECT_EQ(json()["signedBy"], "CN = Quillon provisioning");
}

TEST_F(ImageProvision, TakesAnotherItemAndAnotherFile)
{
    ASSERT_EQ(run(std::string(kProvision) + "--item other.key --output package --json"), 0) << err;
    EXPECT_EQ(json()["provisioningPackage"], "package");
    EXPECT_EQ(json()["item"], "other.key");
    ASSERT_EQ(run("info package --json"), 0) << err;
    EXPECT_EQ(json()["item"], "other.key");
    EXPECT_EQ(json()["payloadSize"], 16);
    EXPECT_FALSE(json().isMember("signedBy")) << "info does not check the signature";
}

TEST_F(ImageProvision, MakesTheSameForThePackageOfKeygen)
{
    ASSERT_EQ(run("verify $KEYS/00000066.bin --certificates trusted"), 0) << err;
    expectText(out, like("*item: quillon\npayloadSize: 32\n*"));
}

TEST_F(ImageProvision, RefusesAKeyThatIsNotTheCertificates)
{
    expectRefusal(
        "provision --payload item --sign $OTHER/provisioning-key.pem "
        "--certificate $KEYS/provisioning-certificate.pem",
        6, "the certificate is not that of the signing key");
    expectRefusal("provision --payload item --sign $KEYS/provisioning-key.pem --certificate item",
                  6, "item: not certificates in PEM form");
    expectRefusal(
        "provision --payload item --sign item --certificate $KEYS/provisioning-certificate.pem", 6,
        "item: not a private key");
    EXPECT_FALSE(std::filesystem::exists(directory + "00000066.bin"));
}

TEST_F(ImageProvision, RefusesAnItemThatCannotBe)
{
    expectRefusal(std::string(kProvision) + "--item ../x", 2, "no name for a storage item");
    writeFile(directory + "item", "");
    expectRefusal(kProvision, 2, "a storage item has 1 to 65536 bytes");
    writeFile(directory + "item", std::string(65537, 'x'));
    expectRefusal(kProvision, 3, "item: cannot be read: longer than 65536 bytes");
}

TEST_F(ImageProvision, VerifyRefusesWhatADeviceRefuses)
{
    ASSERT_EQ(run(kProvision), 0) << err;
    std::string package = readAll(directory + "00000066.bin");
    expectRefusal("verify 00000066.bin --certificates .", 5, "no certificate (*.pem) in .");
    expectRefusal("verify item --certificates trusted", 4, "item: not a provisioning package");
    expectRefusal("verify missing --certificates trusted", 3, "missing: cannot be read");
    package[package.find("0123456789abcdef")] = 'X';
    writeFile(directory + "changed", package);
    expectRefusal("verify changed --certificates trusted", 5,
                  "changed: not signed by anyone trusted");
    std::filesystem::rename(directory + "trusted/a.pem", directory + "a.txt");
    std::filesystem::copy(keyPath("b", kProvisioningCertificateFile), directory + "trusted/b.pem");
    expectRefusal("verify 00000066.bin --certificates trusted", 5,
                  "00000066.bin: not signed by anyone trusted");
}

TEST_F(ImageProvision, AnAuthoritysSignerAndOpensslAloneWillDo)
{
    if (shell("openssl version") != 0) {
        GTEST_SKIP() << "openssl(1) is not installed";
    }
    const std::string page = readAll(FORMAT_PAGE);
    const std::size_t section = page.find("## The provisioning package");
    const std::string opening = "```shell\n";
    std::string commands = "cd '" + directory + "' && set -e\n";
    for (std::size_t at = page.find(opening, section); at != std::string::npos;
         at = page.find(opening, at)) {
        at += opening.size();
        commands += page.substr(at, page.find("```", at) - at);
    }
    std::filesystem::remove(directory + "trusted/a.pem");
    ASSERT_EQ(shell(commands), 0) << err;
    std::filesystem::copy(directory + "authority.pem", directory + "trusted/authority.pem");
    ASSERT_EQ(run("verify 00000066.bin --certificates trusted --json"), 0) << err;
    EXPECT_EQ(json()["signedBy"], "CN = provisioning of the tuner line");
    EXPECT_EQ(run("verify 00000066.bin --certificates trusted --purpose"), 0) << err;
}

TEST_F(ImageProvision, BringsFloorsWithAnItemOrAlone)
{
    ASSERT_EQ(run(std::string(kProvision) + "--floor tuner=7 --floor camera=2"), 0) << err;
    ASSERT_EQ(run("verify 00000066.bin --certificates trusted"), 0) << err;
    expectText(out, like("floor.camera: 2\nfloor.tuner: 7\nitem: quillon\n*"));

    ASSERT_EQ(run("provision --floor tuner=4294967295 --sign $KEYS/provisioning-key.pem "
                  "--certificate $KEYS/provisioning-certificate.pem --json"),
              0)
        << err;
    EXPECT_EQ(json()["floor.tuner"].asUInt64(), 4294967295U);
    EXPECT_FALSE(json().isMember("item"));
    ASSERT_EQ(run("info 00000066.bin"), 0) << err;
    expectText(out, like("floor.tuner: 4294967295\nprovisioningPackage: *"));
}

TEST_F(ImageProvision, RefusesAFloorThatCannotBe)
{
    for (const char* floor : {"tuner", "tuner=", "tuner=x", "=7", "tu-ner=7", "tuner=4294967296",
                              "tuner=7 --floor tuner=8"}) {
        expectRefusal(std::string(kProvision) + "--floor " + floor, 2, "is not MODULE=NUMBER");
    }
    expectRefusal(
        "provision --sign $KEYS/provisioning-key.pem "
        "--certificate $KEYS/provisioning-certificate.pem",
        2, "--payload or --floor has to be given");
    EXPECT_FALSE(std::filesystem::exists(directory + "00000066.bin"));
}

TEST_F(ImageProvision, VerifyDemandsThePurposeWhenItIsTold)
{
    ASSERT_EQ(run(kProvision), 0) << err;
    EXPECT_EQ(run("verify 00000066.bin --certificates trusted --purpose"), 0)
        << "keygen's certificates have it: " << err;

    if (shell("openssl version") != 0) {
        GTEST_SKIP() << "openssl(1) is not installed";
    }
    ASSERT_EQ(shell("cd '" + directory + "' && openssl req -x509 -key " +
                    keyPath("a", kProvisioningKeyFile) +
                    " -days 36500 -subj '/CN=no purpose' -out trusted/a.pem"),
              0)
        << err;
    ASSERT_EQ(run("provision --payload item --sign $KEYS/provisioning-key.pem "
                  "--certificate trusted/a.pem"),
              0)
        << err;
    EXPECT_EQ(run("verify 00000066.bin --certificates trusted"), 0) << err;
    expectRefusal("verify 00000066.bin --certificates trusted --purpose", 5,
                  "its signer's certificate is not for provisioning");
}

}  // namespace
}  // namespace quillon::test
