// The device's own words about trust: trust.conf and the floors.

#include <sys/stat.h>
#include <unistd.h>

#include "support/texts.h"
#include "unit/verifier/verifier-test.h"

namespace quillon::test {
namespace {

constexpr char kNothingTrusted[] = "not signed: no image is trusted: ";

class Policy : public VerifierTest
{
protected:
    /// Checks that no image is trusted, for a reason that names the place.
    void expectNothingTrusted(const std::string& reason)
    {
        EXPECT_EQ(verify(image), 0);
        EXPECT_EQ(said, "libkUEPUser: " + image + ": " + kNothingTrusted + reason +
                            " (asked by UserCaller)\n");
    }
};

TEST_F(Policy, OfADeviceThatSaysNothingAcceptsFormat1)
{
    EXPECT_EQ(verify(image), 1);
    putPolicy("");
    EXPECT_EQ(verify(image), 1);
    putPolicy("# format-1 = refused\n\n  \t\n");
    EXPECT_EQ(verify(image), 1);
    putPolicy("format-1 = accepted\nmodel = TV 2024 (EU)\r\nprovisioning-purpose=optional");
    EXPECT_EQ(verify(image), 1);
}

TEST_F(Policy, MayRefuseFormat1)
{
    putPolicy("model = TV2024\nformat-1 = refused\n");

    EXPECT_EQ(verify(image), 0);
    expectText(said, like("*trailer has format 1, which /etc/quillon/trust.conf refuses*"));
}

TEST_F(Policy, AFloorRefusesFormat1WhichHasNoCounter)
{
    putPolicy("floor.tuner = 1\n");
    EXPECT_EQ(verify(image), 0);
    expectText(said, like("*too old: trailer of format 1 has no security counter, and the "
                          "module's floor is 1*"));

    putPolicy("floor.tuner = 0\nfloor.camera = 3\n");
    EXPECT_EQ(verify(image), 1);
}

TEST_F(Policy, IsReadAnewForEachFile)
{
    EXPECT_EQ(verify(image), 1);
    putPolicy("format-1 = refused\n");
    EXPECT_EQ(verify(image), 0);
    std::filesystem::remove(QUILLON_TRUST_POLICY);
    EXPECT_EQ(verify(image), 1);
    putFloors("floor.tuner = 2\n");
    EXPECT_EQ(verify(image), 0);
}

TEST_F(Policy, AWrongLineTrustsNothingAndSaysWhichAndWhatToDo)
{
    const std::string at = "/etc/quillon/trust.conf:2: ";
    putPolicy("model = TV2024\nfloor.tuner 7\n");
    expectNothingTrusted(at + "not \"SETTING = VALUE\"; correct or remove the line");
    putPolicy("model = TV2024\nformat1 = refused\n");
    expectNothingTrusted(at +
                         "unknown setting \"format1\"; there are format-1, model, "
                         "provisioning-purpose and floor.MODULE");
    putPolicy("model = TV2024\nformat-1 = no\n");
    expectNothingTrusted(at + "\"no\" has to be \"accepted\" or \"refused\"");
    putPolicy("format-1 = refused\nmodel =\n");
    expectNothingTrusted(at + "a model has 1 to 64 printable ASCII characters");
    putPolicy("model = TV2024\nmodel = TV2024\n");
    expectNothingTrusted(at + "\"model\" for the second time; remove one of the lines");
    putPolicy("model = TV2024\n# old ends of lines\rformat-1 = refused\n");
    expectNothingTrusted(at + "a carriage return within the line; end lines with a line feed");
    putPolicy("model = TV2024\nprovisioning-purpose = yes\n");
    expectNothingTrusted(at + "\"yes\" has to be \"required\" or \"optional\"");
}

TEST_F(Policy, AFloorIsADecimalNumberOf32BitsForAModulesName)
{
    for (const char* number : {"", "-1", "7a", "0x7", "4294967296", "99999999999", "1 2"}) {
        putPolicy(std::string("floor.tuner = ") + number + "\n");
        expectNothingTrusted(std::string("/etc/quillon/trust.conf:1: \"") + number +
                             "\" has to be a number from 0 to 4294967295");
    }
    putPolicy("floor.tuner-1 = 7\n");
    expectNothingTrusted(
        "/etc/quillon/trust.conf:1: \"tuner-1\" has to be a module's name, of "
        "ASCII letters and digits");
}

TEST_F(Policy, ThatCannotBeReadTrustsNothing)
{
    const std::string remedy = "; it has to be a file that all may read";
    std::filesystem::create_symlink("/nowhere", QUILLON_TRUST_POLICY);
    expectNothingTrusted("/etc/quillon/trust.conf: cannot be read: No such file or directory" +
                         remedy);
    std::filesystem::remove(QUILLON_TRUST_POLICY);

    std::filesystem::create_directory(QUILLON_TRUST_POLICY);
    expectNothingTrusted("/etc/quillon/trust.conf: cannot be read: is a directory" + remedy);
    std::filesystem::remove(QUILLON_TRUST_POLICY);

    putPolicy(std::string(70000, '#'));
    expectNothingTrusted("/etc/quillon/trust.conf: cannot be read: longer than 65536 bytes" +
                         remedy);
}

TEST_F(Policy, FloorsThatAreNotFloorsTrustNothing)
{
    putFloors("floor.tuner = 1\nmodel = TV2024\n");
    expectNothingTrusted(
        "/var/lib/quillon/trust/floors:2: unknown setting \"model\"; there is "
        "floor.MODULE only");
    std::filesystem::remove(QUILLON_SECURITY_FLOORS);

    std::filesystem::create_symlink("/nowhere", QUILLON_SECURITY_FLOORS);
    EXPECT_EQ(verify(image), 0);
    expectText(said, like("*" + std::string(kNothingTrusted) + "*"));
    expectText(said, like("*trust/floors: cannot be read*"));
}

TEST_F(Policy, OfFloorsIsReadAsItIsWritten)
{
    const Floors floors = {{"camera", 0}, {"tuner", 4294967295}};
    putFloors(floorsText(floors));

    EXPECT_EQ(loadFloors(QUILLON_SECURITY_FLOORS), floors);
}

TEST_F(Policy, RaisingFloorsLowersNone)
{
    Floors floors = {{"camera", 5}, {"tuner", 2}};
    raiseFloors(floors, {{"camera", 4}, {"panel", 1}, {"tuner", 3}});

    EXPECT_EQ(floors, (Floors{{"camera", 5}, {"panel", 1}, {"tuner", 3}}));
}

}  // namespace
}  // namespace quillon::test
