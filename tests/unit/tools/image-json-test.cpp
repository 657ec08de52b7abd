// The members of each verb's JSON object, as the manual lists them.

#include <gmock/gmock.h>

#include <map>
#include <set>

#include "unit/tools/image-program.h"

using ::testing::ElementsAreArray;
using ::testing::HasSubstr;

namespace quillon::test {
namespace {

/// Names of members and their types: t text, n number that is not negative, l list, o object.
using Schema = std::map<std::string, char>;

const Schema kImage = {{"image", 't'},
                       {"size", 'n'},
                       {"ciphertextSize", 'n'},
                       {"initialisationVector", 't'},
                       {"keyId", 't'},
                       {"trailerFormat", 'n'},
                       {"signatureAlgorithm", 't'}};
const Schema kFormat2 = {{"moduleCheck", 't'}, {"modelCheck", 't'}, {"securityCounter", 'n'}};

Schema operator+(Schema first, const Schema& second)
{
    first.insert(second.begin(), second.end());
    return first;
}

char typeOf(const Json::Value& value)
{
    return value.isString() ? 't' : value.isUInt64() ? 'n' : value.isArray() ? 'l' : 'o';
}

Schema schemaOf(const Json::Value& object)
{
    Schema schema;
    for (const std::string& name : object.getMemberNames()) {
        schema[name] = typeOf(object[name]);
    }
    return schema;
}

class ImageJson : public ImageProgram
{
protected:
    /// Runs a verb and expects an object with these members and no others, all in the manual.
    void expectSchema(const std::string& arguments, const Schema& schema, int status = 0)
    {
        SCOPED_TRACE(arguments);
        ASSERT_EQ(run(arguments + " --json"), status) << err;
        EXPECT_EQ(err, "");
        EXPECT_THAT(schemaOf(json()), ElementsAreArray(schema));
        verbs.insert(arguments.substr(0, arguments.find(' ')));
        const std::string manual = readAll(MANUAL_PAGE);
        for (const auto& [name, type] : schema) {
            const bool isFloor = name.rfind("floor.", 0) == 0;
            EXPECT_THAT(manual, HasSubstr("Va " + (isFloor ? "floor." : name)));
        }
    }

    std::set<std::string> verbs;
};

constexpr char kFromA[] = " tuner.bin --public $KEYS/signing-key.pub.pem ";

TEST_F(ImageJson, HasTheMembersOfTheManualForEveryVerb)
{
    expectSchema("keygen keys", {{"signingKey", 't'},
                                 {"publicKey", 't'},
                                 {"keyId", 't'},
                                 {"imageKey", 't'},
                                 {"provisioningKey", 't'},
                                 {"provisioningCertificate", 't'},
                                 {"provisioningPackage", 't'}});
    expectSchema(kBuild + std::string("--output x.bin"), kImage + Schema{{"version", 't'}});
    expectSchema(kBuild + std::string("--module panel --model TV --counter 1 --output panel.bin"),
                 kImage + kFormat2 + Schema{{"version", 't'}});
    const Schema package = {{"package", 't'}, {"size", 'n'}, {"type", 't'}};
    expectSchema("package --name tuneremp --version 1 --payload payload",
                 package + Schema{{"name", 't'},
                                  {"firmware", 't'},
                                  {"version", 't'},
                                  {"crc", 'n'},
                                  {"expectedTime", 'n'}});
    expectSchema("info tuneremp.img", package);
    const Schema provisioning = {{"provisioningPackage", 't'},
                                 {"size", 'n'},
                                 {"item", 't'},
                                 {"payloadSize", 'n'},
                                 {"floor.tuner", 'n'}};
    expectSchema(
        "provision --payload payload --floor tuner=3 --sign $KEYS/provisioning-key.pem "
        "--certificate $KEYS/provisioning-certificate.pem --output p.bin",
        provisioning);
    expectSchema("info p.bin", provisioning);
    std::filesystem::create_directory(directory + "makers");
    std::filesystem::copy(keyPath("a", kProvisioningCertificateFile), directory + "makers");
    expectSchema("verify p.bin --certificates makers", provisioning + Schema{{"signedBy", 't'}});
    expectSchema("info panel.bin", kImage + kFormat2);
    expectSchema("info tuner.bin --key $KEYS/image-key.bin", kImage + Schema{{"version", 't'}});
    expectSchema("verify" + std::string(kFromA), {{"image", 't'}, {"signedBy", 't'}});
    expectSchema("extract tuner.bin --key $KEYS/image-key.bin --output y",
                 {{"image", 't'}, {"payload", 't'}, {"size", 'n'}, {"version", 't'}});
    expectSchema("resign --sign $KEYS/signing-key.pem --output z.bin" + std::string(kFromA),
                 kImage + Schema{{"signedBefore", 't'}});

    const Schema comparison = {{"first", 't'}, {"second", 't'}, {"differences", 'o'}};
    expectSchema("diff tuner.bin tuner.bin", comparison);
    expectSchema("diff tuner.bin x.bin --key $KEYS/image-key.bin", comparison, 1);
    for (const char* name :
         {"ciphertextDigest", "payloadDigest", "signatureDigest", "initialisationVector"}) {
        EXPECT_THAT(readAll(MANUAL_PAGE), HasSubstr("Va " + std::string(name)));
    }

    writeFile(directory + "stick.json",
              R"({"imageKey": ")" + keyPath("a", kImageKeyFile) + R"(", "signingKey": ")" +
                  keyPath("a", kSigningKeyFile) +
                  R"(", "modules": [{"name": "a", "version": "1", "payload": "payload"}]})");
    expectSchema("stick --manifest stick.json --output stick", {{"stick", 't'}, {"images", 'l'}});
    EXPECT_THAT(schemaOf(json()["images"][0]),
                ElementsAreArray(kImage + Schema{{"module", 't'}, {"version", 't'}}));

    // No verb is forgotten here.
    ASSERT_EQ(run("--help"), 0);
    std::istringstream lines(out.substr(out.find("Subcommands:")));
    for (std::string line; std::getline(lines, line) && line.rfind("Exit", 0) != 0;) {
        std::string verb;
        if (line.rfind("  ", 0) == 0 && line[2] != ' ' && std::istringstream(line) >> verb) {
            EXPECT_EQ(verbs.count(verb), 1U) << verb;
        }
    }
    EXPECT_EQ(verbs.size(), 10U);
}

}  // namespace
}  // namespace quillon::test
