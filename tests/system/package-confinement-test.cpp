// What a package may do to the machine that mounts it: whoever makes one need not be trusted.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "system/privileged-helper.h"

using namespace quillon::test;
namespace fs = std::filesystem;

namespace {

constexpr const char* kSecret = "/var/lib/quillon/secret";

class PackageConfinement : public PackageMount, public testing::WithParamInterface<const char*>
{
protected:
    void SetUp() override
    {
        PackageMount::SetUp();
        if (IsSkipped()) {
            return;
        }
        name_ = unique("alpha");
        content_ = "/var/lib/quillon/content-" + name_;
        fs::create_directories(content_);
        fs::create_directories(mountPointOf(name_));
        std::ofstream(kSecret) << "of the host";
        fs::permissions(kSecret, fs::perms(0600));
    }

    /// Packs the directory `content_` and mounts what has come out.
    void mountContent()
    {
        const std::string type = GetParam();
        if (type == "squashfs") {
            run("mksquashfs " + content_ + " " + imageOf(name_) + " -noappend -quiet");
        } else {
            run("mke2fs -q -F -t " + type + " -d " + content_ + " " + imageOf(name_) + " 4M");
        }
        helper.startAndWait();
        ASSERT_EQ(mountPackage(name_), kDone) << helper.log();
    }

    /// @return 0 when the file can be read, else why not
    int readingOf(const std::string& entry) const
    {
        const int file =
            ::open((mountPointOf(name_) + "/" + entry).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
        const int reason = file == -1 ? errno : 0;
        ::close(file);
        return reason;
    }

    std::string name_;
    std::string content_;
};

TEST_P(PackageConfinement, FollowsNoLinkWhereverItLeads)
{
    fs::create_symlink(kSecret, content_ + "/absolute");
    fs::create_symlink("../../../../../../../../../.." + std::string(kSecret),
                       content_ + "/climbing");
    fs::create_symlink("/dev/zero", content_ + "/endless");
    fs::create_directory_symlink(fs::path(kSecret).parent_path(), content_ + "/directory");
    std::ofstream(content_ + "/own") << "of the package";
    ASSERT_NO_FATAL_FAILURE(mountContent());

    EXPECT_EQ(readingOf("own"), 0);
    EXPECT_EQ(readingOf("absolute"), ELOOP);
    EXPECT_EQ(readingOf("climbing"), ELOOP);
    EXPECT_EQ(readingOf("endless"), ELOOP);
    EXPECT_EQ(readingOf("directory/secret"), ELOOP);
}

TEST_P(PackageConfinement, HoldsNoProgramThatCanBeStarted)
{
    fs::copy_file("/bin/true", content_ + "/program");
    ASSERT_NO_FATAL_FAILURE(mountContent());

    EXPECT_EQ(::access((mountPointOf(name_) + "/program").c_str(), X_OK), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(readingOf("program"), 0);
}

INSTANTIATE_TEST_SUITE_P(OfEachType, PackageConfinement, testing::Values("squashfs", "ext4"),
                         [](const auto& type) { return type.param; });

}  // namespace
