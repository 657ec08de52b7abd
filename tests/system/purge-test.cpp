// What purging the service's package takes away, and what it leaves alone.

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include "support/files.h"
#include "support/process.h"
#include "support/texts.h"
#include "system/privileged-helper.h"

using namespace quillon::test;
namespace fs = std::filesystem;

namespace {

constexpr uid_t kMember = 1234;
constexpr gid_t kGroup = 2345;
constexpr const char* kElsewhere = "/var/lib/quillon/elsewhere";
constexpr const char* kPrograms = "/var/lib/quillon/programs/";
constexpr const char* kProvisioning = "/usr/share/sdp/quillon-key/00000066.bin";

/// The machine as the package has left it, with programs in front of the machine's own that keep
/// the purge from asking or changing its packages and users.
class Purge : public PackageMount
{
protected:
    void SetUp() override
    {
        PackageMount::SetUp();
        if (IsSkipped()) {
            return;
        }
        for (const char* program : {"dpkg-query", "userdel", "groupdel"}) {
            putProgram(program, "exit 1");
        }
        fs::create_directories(kElsewhere);
        for (const char* directory : {kPackageDirectory, kMountDirectory}) {
            ASSERT_EQ(::chown(directory, 0, kGroup), 0);
            fs::permissions(directory, fs::perms(02775));
        }
        foreign_ = unique("foreign");
        addSquashfs(foreign_, "foreign");
        run("mount -o ro,loop " + imageOf(foreign_) + " " + kElsewhere);
    }

    void TearDown() override
    {
        ::umount2(kElsewhere, MNT_DETACH);
        PackageMount::TearDown();
    }

    static void putProgram(const std::string& name, const std::string& script)
    {
        writeScript(kPrograms + name, script);
    }

    static void purge()
    {
        const std::string path = std::string("PATH=") + kPrograms + ":$PATH ";
        EXPECT_TRUE(succeeds(path + "sh " POSTRM " purge"));
    }

    static void mountByHand(const std::string& name, const std::string& directory)
    {
        run("mount -o ro,loop " + imageOf(name) + " " + mountPointOf(directory));
    }

    static void expectForeignMountStays()
    {
        EXPECT_EQ(mounts(kElsewhere).size(), 1U) << "it was no package's mount";
    }

private:
    std::string foreign_;
};

TEST_F(Purge, LeavesNoPackageNeitherMountedNorOnTheDisk)
{
    const std::string name = unique("alpha");
    addSquashfs(name);
    addSquashfs(name + "upper");
    mountByHand(name, name);
    mountByHand(name + "upper", name);

    purge();

    expectTexts(mounts(mountPointOf(name)), {});
    EXPECT_FALSE(fs::exists(imageOf(name)));
    expectForeignMountStays();
}

TEST_F(Purge, UnmountsNothingBehindALinkThatAMemberHasPutThere)
{
    const std::string link = mountPointOf(unique("link"));
    ASSERT_EQ(::symlink(kElsewhere, link.c_str()), 0);
    ASSERT_EQ(::lchown(link.c_str(), kMember, kGroup), 0);

    purge();

    expectForeignMountStays();
    EXPECT_FALSE(fs::is_symlink(link));
}

TEST_F(Purge, UnmountsNothingBehindALinkInTheDirectoriesPlace)
{
    fs::remove_all(kMountDirectory);
    const std::string directory =
        std::string(kMountDirectory).substr(0, std::strlen(kMountDirectory) - 1);
    ASSERT_EQ(::symlink("/var/lib/quillon", directory.c_str()), 0);

    purge();

    expectForeignMountStays();
    EXPECT_TRUE(fs::exists("/var/lib/quillon"));
}

TEST_F(Purge, UnmountsNothingElseHoweverFastAMemberIs)
{
    if (!succeeds("setpriv --reuid 1234 --regid 2345 --clear-groups true")) {
        GTEST_SKIP() << "there are no other users here";
    }
    const std::string name = unique("alpha");
    addSquashfs(name);
    mountByHand(name, name);
    // Between the look at the mount and the unmounting, a member has the helper unmount it, and
    // puts a link in its place.
    putProgram("findmnt",
               "/usr/bin/findmnt \"$@\"\n"
               "umount " +
                   mountPointOf(name) +
                   " 2>/dev/null || exit 0\n"
                   "setpriv --reuid 1234 --regid 2345 --clear-groups sh -c 'rmdir " +
                   mountPointOf(name) + " && ln -s " + kElsewhere + " " + mountPointOf(name) +
                   "' 2>/dev/null\n"
                   "exit 0");

    purge();

    expectForeignMountStays();
}

TEST_F(Purge, LeavesAMountThatIsNoPackages)
{
    const std::string name = unique("alpha");
    addSquashfs(name);
    mountByHand(name, name);
    ASSERT_EQ(::mount("tmpfs", mountPointOf(name).c_str(), "tmpfs", 0, nullptr), 0);

    purge();

    EXPECT_EQ(mounts(mountPointOf(name)).size(), 2U);
}

TEST_F(Purge, TakesAwayWhatTheServiceHasKept)
{
    for (const char* name : {"modules", "examples", "history"}) {
        fs::create_directories(std::string("/var/lib/quillon/") + name);
    }

    purge();

    for (const char* name : {"modules", "examples", "history"}) {
        EXPECT_FALSE(fs::exists(std::string("/var/lib/quillon/") + name)) << name;
    }
}

TEST_F(Purge, TakesTheImageKeyAway)
{
    fs::create_directories(fs::path(kProvisioning).parent_path());
    std::ofstream(kProvisioning) << "holds the image key";

    purge();

    EXPECT_FALSE(fs::exists(kProvisioning));
    EXPECT_FALSE(fs::exists("/usr/share/sdp"));
}

TEST_F(Purge, LeavesTheImageKeyThatAnotherPackageHasBrought)
{
    fs::create_directories(fs::path(kProvisioning).parent_path());
    std::ofstream(kProvisioning) << "holds the image key";
    putProgram("dpkg-query", "[ \"$1 $2\" = \"--search " + std::string(kProvisioning) + "\" ]");

    purge();

    EXPECT_TRUE(fs::exists(kProvisioning));
}

}  // namespace
