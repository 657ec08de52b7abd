// The program: its verbs, exit codes, its one line for each refusal, and its manual.

#include <gmock/gmock.h>

#include <set>
#include <sstream>

#include "support/texts.h"
#include "unit/tools/image-program.h"

using ::testing::MatchesRegex;

namespace quillon::test {
namespace {

TEST_F(ImageProgram, BuildsVerifiesAndExtractsOnAStick)
{
    std::filesystem::create_directory(directory + "stick");

    ASSERT_EQ(run(std::string(kBuild) + "--module panel --stick stick"), 0) << err;
    EXPECT_EQ(modeOf(directory + "stick/panel.bin"), 0644U);
    EXPECT_EQ(run("verify stick/panel.bin --public $KEYS/signing-key.pub.pem"), 0) << err;
    EXPECT_EQ(run("extract stick/panel.bin --key $KEYS/image-key.bin --output out.bin"), 0) << err;
    EXPECT_EQ(readAll(directory + "out.bin"), "firmware");
    EXPECT_EQ(modeOf(directory + "out.bin"), 0600U);
}

TEST_F(ImageProgram, BuildsIntoANamedFile)
{
    ASSERT_EQ(run(std::string(kBuild) + "--output new.bin --json"), 0) << err;
    EXPECT_EQ(json()["image"], "new.bin");
    EXPECT_EQ(json()["version"], "2.1");
    EXPECT_EQ(json()["size"].asUInt64(), std::filesystem::file_size(directory + "new.bin"));
}

TEST_F(ImageProgram, KeygenSaysWhereTheKeysAre)
{
    ASSERT_EQ(run("keygen keys --json"), 0) << err;
    EXPECT_EQ(json()["signingKey"], "keys/signing-key.pem");
    EXPECT_EQ(json()["publicKey"], "keys/signing-key.pub.pem");
    EXPECT_EQ(json()["imageKey"], "keys/image-key.bin");
    EXPECT_EQ(json()["provisioningKey"], "keys/provisioning-key.pem");
    EXPECT_EQ(json()["provisioningCertificate"], "keys/provisioning-certificate.pem");
    EXPECT_EQ(json()["provisioningPackage"], "keys/00000066.bin");
    EXPECT_THAT(json()["keyId"].asString(), MatchesRegex("[0-9a-f]{16}"));

    expectRefusal("keygen keys", 3, "keys/signing-key.pem: exists already");
    EXPECT_EQ(run("keygen keys --force"), 0) << err;
}

TEST_F(ImageProgram, InfoTellsTheVersionToTheHolderOfTheKeyOnly)
{
    ASSERT_EQ(run("info tuner.bin --json"), 0) << err;
    EXPECT_EQ(json()["size"].asUInt64(), 16U + 80U + 534U);
    EXPECT_EQ(json()["ciphertextSize"], 80);
    EXPECT_EQ(json()["trailerFormat"], 1);
    EXPECT_EQ(json()["signatureAlgorithm"], "RSA-4096 PSS SHA-256");
    EXPECT_THAT(json()["initialisationVector"].asString(), MatchesRegex("[0-9a-f]{32}"));
    EXPECT_FALSE(json().isMember("version"));

    ASSERT_EQ(run("info tuner.bin --key $KEYS/image-key.bin --json"), 0) << err;
    EXPECT_EQ(json()["version"], "2.0");

    ASSERT_EQ(run("info tuner.bin --key $KEYS/image-key.bin"), 0) << err;
    expectText(out, like("*version: 2.0\n*"));
}

TEST_F(ImageProgram, VerifyNamesTheKeyOfTheDirectory)
{
    std::filesystem::create_directory(directory + "trusted");
    std::filesystem::copy(keyPath("b", kPublicKeyFile), directory + "trusted/b.pem");
    expectRefusal("verify tuner.bin --trusted trusted", 5, "no trusted key with the id ");

    std::filesystem::copy(keyPath("a", kPublicKeyFile), directory + "trusted/a.pem");
    ASSERT_EQ(run("verify tuner.bin --trusted trusted --json"), 0) << err;
    EXPECT_EQ(json()["signedBy"], "trusted/a.pem");
}

TEST_F(ImageProgram, AWrongCommandLineIsCode2)
{
    expectRefusal("", 2, "subcommand is required");
    expectRefusal("burn", 2, "--help");
    expectRefusal("info", 2, "FILE is required");
    expectRefusal("verify tuner.bin", 2, "--trusted");
    expectRefusal("verify tuner.bin --trusted . --public x", 2, "--trusted");
    expectRefusal(kBuild, 2, "--output");
    expectRefusal(std::string(kBuild) + "--stick .", 2, "--module");
    expectRefusal(std::string(kBuild) + "--stick . --module ../x", 2, "letters and digits");
    expectRefusal(std::string(kBuild) + "--output x --version " + std::string(64, '1'), 2,
                  "version");
}

TEST_F(ImageProgram, AFileThatCannotBeReadOrWrittenIsCode3)
{
    expectRefusal("info missing.bin", 3, "missing.bin: cannot be read: No such file or directory");
    expectRefusal("info .", 3, ".: cannot be read: is a directory");
    expectRefusal("verify tuner.bin --public missing.pem", 3, "missing.pem: cannot be read");
    expectRefusal("info tuner.bin --key missing.key", 3, "missing.key: cannot be read");
    expectRefusal(std::string(kBuild) + "--output no-directory/x.bin", 3,
                  "no-directory/x.bin: cannot be written: No such file or directory");
    expectRefusal(std::string(kBuild) + "--output /dev/null", 3,
                  "/dev/null: cannot be written: not a regular file");
    expectRefusal(std::string(kBuild) + "--output x.bin --payload missing", 2, "--payload");
    EXPECT_EQ(run("info tuner.bin >/dev/full"), 3);
    EXPECT_EQ(err, "quillon-image: standard output cannot be written\n");
}

TEST_F(ImageProgram, AFileThatIsNoStickImageIsCode4)
{
    writeFile(directory + "odd", std::string(1001, 'x'));
    writeFile(directory + "short", "x");
    for (const char* verb : {"info", "verify --trusted .",
                             "extract --key $KEYS/image-key.bin "
                             "--output out.bin"}) {
        expectRefusal(std::string(verb) + " odd", 4, "odd: not a stick image: 1001 bytes leave");
        expectRefusal(std::string(verb) + " short", 4, "short: not a stick image: 1 bytes are");
    }
}

TEST_F(ImageProgram, AMissingOrWrongSignatureIsCode5)
{
    const std::string content = readAll(image);
    writeFile(directory + "unsigned",
              content.substr(0, content.size() - 534) + std::string(534, 'x'));
    writeFile(directory + "damaged", 'x' + content.substr(1));

    expectRefusal("info unsigned", 5, "not signed: trailer has no signature (bad magic)");
    expectRefusal("verify unsigned --public $KEYS/signing-key.pub.pem", 5, "bad magic");
    expectRefusal("verify damaged --public $KEYS/signing-key.pub.pem", 5,
                  "damaged: not signed: signature does not match the content");
    expectRefusal("verify tuner.bin --public $OTHER/signing-key.pub.pem", 5,
                  "tuner.bin: not signed: the signing key has the id ");
}

TEST_F(ImageProgram, AWrongOrUnusableKeyIsCode6)
{
    writeFile(directory + "short-key", "fifteen bytes..");
    expectRefusal("info tuner.bin --key $OTHER/image-key.bin", 6, "tuner.bin: wrong image key");
    expectRefusal("extract tuner.bin --key $OTHER/image-key.bin --output out.bin", 6,
                  "tuner.bin: wrong image key");
    expectRefusal("info tuner.bin --key short-key", 6, "short-key: image key has 15 bytes");
    expectRefusal("verify tuner.bin --public payload", 6, "payload: not a public key in PEM form");
    expectRefusal(
        "build --version 1 --payload payload --key $KEYS/image-key.bin --sign payload "
        "--output x",
        6, "payload: not a private key");
    EXPECT_FALSE(std::filesystem::exists(directory + "out.bin"));
}

TEST_F(ImageProgram, TellsItsVersionAndHelp)
{
    EXPECT_EQ(run("--version"), 0);
    EXPECT_EQ(out, "quillon-image " QUILLON_VERSION "\n");
    EXPECT_EQ(run("--help"), 0);
    expectText(out, like("*Exit codes: 0 done; 2 wrong command line or manifest;*"));
}

constexpr const char* kVerbs[] = {"keygen", "build",   "package", "provision", "info",
                                  "verify", "extract", "stick",   "resign",    "diff"};

std::set<std::string> optionsIn(const std::string& help)
{
    std::set<std::string> options;
    std::istringstream words(help);
    for (std::string word; words >> word;) {
        if (word.rfind("--", 0) == 0) {
            options.insert(word.substr(0, word.find_first_of(",:;")));
        }
    }
    return options;
}

TEST_F(ImageProgram, HasEveryVerbAndOptionInItsManual)
{
    const std::string manual = readAll(MANUAL_PAGE);
    for (const char* verb : kVerbs) {
        expectText(manual, like("*" + std::string(".Cm ") + verb + "*"));
        ASSERT_EQ(run(std::string(verb) + " --help"), 0);
        for (const std::string& option : optionsIn(out)) {
            expectText(manual, like("*Fl -" + option.substr(2) + "*"));
        }
    }
}

}  // namespace
}  // namespace quillon::test
