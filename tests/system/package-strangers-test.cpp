// Who can get at a mounted package: whoever holds a file in it keeps it from being unmounted.
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>

#include "system/privileged-helper.h"

using namespace quillon::test;

namespace {

constexpr uid_t kService = 4711;
constexpr uid_t kStranger = 4712;
constexpr gid_t kUnusedGroup = 4713;

class PackageStrangers : public PackageMount
{
protected:
    void SetUp() override
    {
        PackageMount::SetUp();
        if (IsSkipped()) {
            return;
        }
        if (std::system("command -v systemd-tmpfiles >/dev/null") != 0) {
            GTEST_SKIP() << "needs systemd-tmpfiles";
        }
        if (::getgrnam("quillon") == nullptr) {
            std::ofstream("/etc/group", std::ios::app) << "quillon:x:" << kUnusedGroup << ":\n";
        }
        const group* found = ::getgrnam("quillon");
        ASSERT_NE(found, nullptr);
        group_ = found->gr_gid;
        name_ = unique("alpha");
        addSquashfs(name_, "content");
    }

    /// As the device does at each boot, and an upgrade of the package.
    static void makeDirectories() { run("systemd-tmpfiles --create " TMPFILES); }

    void mountAsService()
    {
        helper.startAndWait({"--group", "quillon"});
        ASSERT_EQ(asService([&] { return mountPackage(name_) == kDone; }), 1) << helper.log();
    }

    int asService(const std::function<int()>& body) const
    {
        return asUser(kService, {group_}, body);
    }

    /// @return 0 when the mounted package's file can be opened, else why not
    int opening() const
    {
        const std::string file = mountPointOf(name_) + "/name";
        return ::open(file.c_str(), O_RDONLY | O_CLOEXEC) == -1 ? errno : 0;
    }

    gid_t group_ = 0;
    std::string name_;
};

TEST_F(PackageStrangers, AreKeptOutOfMountedPackagesAndTheGroupIsNot)
{
    makeDirectories();
    ASSERT_NO_FATAL_FAILURE(mountAsService());

    EXPECT_EQ(asUser(kStranger, {kStranger}, [&] { return opening(); }), EACCES);
    EXPECT_EQ(asService([&] { return opening(); }), 0);
    EXPECT_EQ(asService([&] { return unmountPackage(name_) == kDone; }), 1) << helper.log();
}

TEST_F(PackageStrangers, AreKeptOutAfterAnUpgradeFromADirectoryThatWasOpenToThem)
{
    ASSERT_EQ(::chown(kMountDirectory, 0, group_), 0);
    ASSERT_EQ(::chmod(kMountDirectory, 02775), 0);
    ASSERT_NO_FATAL_FAILURE(mountAsService());
    ASSERT_EQ(asUser(kStranger, {kStranger}, [&] { return opening(); }), 0);

    makeDirectories();

    EXPECT_EQ(asUser(kStranger, {kStranger}, [&] { return opening(); }), EACCES);
    EXPECT_EQ(asService([&] { return unmountPackage(name_) == kDone; }), 1) << helper.log();
}

}  // namespace
