// Who can change what a device trusts.

#include "helpers/lifecycle/trusted-places.h"
#include "support/process.h"
#include "support/texts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

using quillon::test::expectTexts;
using quillon::test::expectTextsInAnyOrder;
using quillon::test::like;
using quillon::test::succeeds;

namespace fs = std::filesystem;
using namespace quillon::unit;
using testing::IsEmpty;

constexpr uid_t kSomebody = 1000;

/// A directory /opt/trust/keys with a file key.pem, all of root's.
class TrustedPlaces : public testing::Test
{
protected:
    void SetUp() override
    {
        umask(0022);
        fs::create_directories(keys);
        std::ofstream(key) << "key";
        ASSERT_THAT(faultsOf({keys}), IsEmpty()) << "the directories above are this machine's";
    }

    void TearDown() override { fs::remove_all(trust); }

    static void setMode(const std::string& path, mode_t mode)
    {
        ASSERT_EQ(chmod(path.c_str(), mode), 0);
    }

    /// @return false where there is only one user.
    static bool giveAway(const std::string& path)
    {
        return lchown(path.c_str(), kSomebody, kSomebody) == 0;
    }

    /// Does what the lines say, and looks again.
    static std::vector<std::string> faultsAfterTheRemedies(const std::vector<std::string>& lines,
                                                           const std::string& place)
    {
        const std::string mark = "; mend it: ";
        for (const std::string& line : lines) {
            const std::string command = line.substr(line.find(mark) + mark.size());
            EXPECT_TRUE(succeeds("bash -c \"" + command + "\"")) << command;
        }
        return faultsOf({place});
    }

    const std::string trust = "/opt/trust";
    const std::string keys = trust + "/keys";
    const std::string key = keys + "/key.pem";
};

TEST_F(TrustedPlaces, ThatAreMissingAreNoFault)
{
    expectTexts(faultsOf({keys + "/none", trust + "/none/at/all", key + "/no-directory"}), {});
}

TEST_F(TrustedPlaces, ThatOthersCanWriteToAreNamedWithTheRemedy)
{
    setMode(keys, 0775);
    setMode(key, 0646);
    const std::vector<std::string> faults = faultsOf({keys});

    expectTexts(faults, {"/opt/trust/keys can be written by others than root (mode 0775); mend "
                         "it: chmod go-w /opt/trust/keys",
                         "/opt/trust/keys/key.pem can be written by others than root (mode "
                         "0646); mend it: chmod go-w /opt/trust/keys/key.pem"});
    expectTexts(faultsAfterTheRemedies(faults, keys), {});
}

TEST_F(TrustedPlaces, ThatBelongToSomebodyElseAreNamedWithTheRemedy)
{
    if (!giveAway(key)) {
        GTEST_SKIP() << "there is only one user here";
    }
    const std::vector<std::string> faults = faultsOf({keys});

    expectTexts(faults, {"/opt/trust/keys/key.pem belongs to user 1000, not to root; "
                         "mend it: chown -h root /opt/trust/keys/key.pem"});
    expectTexts(faultsAfterTheRemedies(faults, keys), {});
}

TEST_F(TrustedPlaces, AreNoBetterThanTheDirectoriesAboveThem)
{
    setMode(trust, 01777);
    const std::string fault =
        "/opt/trust can be written by others than root (mode 1777); mend it: chmod go-w /opt/trust";

    expectTexts(faultsOf({keys}), {fault});
    expectTexts(faultsOf({key}), {fault});
    SCOPED_TRACE("somebody could put there what is missing");
    expectTexts(faultsOf({trust + "/none/at/all"}), {fault});
    SCOPED_TRACE("once is enough");
    expectTexts(faultsOf({keys, key, trust}), {fault});
}

TEST_F(TrustedPlaces, AreLookedAtInDirectoriesOfDirectoriesToo)
{
    fs::create_directories(keys + "/more/still");
    std::ofstream(keys + "/more/still/deep.so") << "module";
    setMode(keys + "/more/still/deep.so", 0666);

    EXPECT_EQ(faultsOf({keys}).size(), 1U);
}

TEST_F(TrustedPlaces, AreWhatLinksLeadTo)
{
    const std::string store = trust + "/store/v1";
    fs::create_directories(store);
    std::ofstream(store + "/other.pem") << "key";
    fs::create_symlink("../store/v1/other.pem", keys + "/other.pem");
    fs::create_symlink(keys, trust + "/link");
    expectTexts(faultsOf({trust + "/link"}), {});

    setMode(trust + "/store", 0777);
    setMode(store + "/other.pem", 0666);
    expectTextsInAnyOrder(
        faultsOf({trust + "/link"}),
        {like("/opt/trust/store can be written*"), like("/opt/trust/store/v1/other.pem can be*")});
}

TEST_F(TrustedPlaces, ALinkOfSomebodyElsesIsAFault)
{
    fs::create_symlink("key.pem", keys + "/other.pem");
    if (!giveAway(keys + "/other.pem")) {
        GTEST_SKIP() << "there is only one user here";
    }
    const std::vector<std::string> faults = faultsOf({keys});

    EXPECT_EQ(faults.size(), 1U);
    expectTexts(faultsAfterTheRemedies(faults, keys), {});
}

TEST_F(TrustedPlaces, LinksInACircleEndSomewhere)
{
    fs::create_symlink("b.pem", keys + "/a.pem");
    fs::create_symlink("a.pem", keys + "/b.pem");
    const std::vector<std::string> faults = faultsOf({keys});

    EXPECT_EQ(faults.size(), 2U);
    SCOPED_TRACE("what is left leads to nothing");
    expectTexts(faultsAfterTheRemedies({faults.front()}, keys), {});
}

TEST_F(TrustedPlaces, ALinkToADirectoryIsNotASecondWayIntoIt)
{
    fs::create_symlink("/", keys + "/everything");
    fs::create_symlink(".", keys + "/itself");

    expectTexts(faultsOf({keys}), {});
}

TEST_F(TrustedPlaces, ANameStaysOnItsLineWhateverIsInIt)
{
    const std::string name = keys + "/a b'\n<3>;$(reboot).pem";
    std::ofstream(name.c_str()) << "key";
    setMode(name, 0666);
    const std::vector<std::string> faults = faultsOf({keys});

    ASSERT_EQ(faults.size(), 1U);
    EXPECT_EQ(faults[0].find('\n'), std::string::npos);
    EXPECT_NE(faults[0].find("chmod go-w $'/opt/trust/keys/a b\\x27\\x0a\\x3c3\\x3e\\x3b"),
              std::string::npos)
        << faults[0];
}

}  // namespace
