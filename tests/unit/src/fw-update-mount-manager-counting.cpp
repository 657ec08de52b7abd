// What there is: loop devices, mounts of them, files and directories.

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cerrno>
#include <fstream>
#include <string>

#include "fw-update-mount-manager.h"
#include "loop-devices.h"
#include "support/device-fixture.h"

namespace quillon::test {
namespace {

using namespace fakes;

class LoopDeviceCount : public DeviceTest
{
protected:
    const LoopDevices loops;
};

TEST_F(LoopDeviceCount, MountsAreTheLinesThatBeginWithALoopDevice)
{
    loops.tableSays(
        "/dev/sda1 / ext4 rw 0 0\n"
        "/dev/loop0 /mnt/a squashfs ro 0 0\n"
        "tmpfs /dev/loop1 tmpfs rw 0 0\n"
        "overlay /dev/shm overlay rw,lowerdir=/dev/loop2 0 0\n"
        " /dev/loop3 /mnt/b squashfs ro 0 0\n"
        "/dev/loo /mnt/c squashfs ro 0 0\n"
        "/dev/loop17 /mnt/d ext4 ro 0 0\n"
        "/dev/loop /mnt/e ext4 ro 0 0\n");

    EXPECT_EQ(countMountedLoopDevices(), 3);
    expectSteps({});
}

TEST_F(LoopDeviceCount, TheLastLineCountsWithoutItsEndAsWell)
{
    loops.tableSays("/dev/loop0 /mnt/a squashfs ro 0 0\n/dev/loop1");

    EXPECT_EQ(countMountedLoopDevices(), 2);
}

TEST_F(LoopDeviceCount, ALineOfAnyLengthCountsOnce)
{
    loops.tableSays("/dev/loop0 " + std::string(100000, 'x') + "/dev/loop1\n/dev/loop2 y\n");

    EXPECT_EQ(countMountedLoopDevices(), 2);
}

TEST_F(LoopDeviceCount, AnEmptyOrMissingTableHasNoMounts)
{
    loops.tableSays("");
    EXPECT_EQ(countMountedLoopDevices(), 0);

    openInstead("/proc/mounts", "/opt/media/nothing");
    EXPECT_EQ(countMountedLoopDevices(), 0);
    expectSteps({});
}

TEST_F(LoopDeviceCount, NodesAreTheDevicesWhoseNameBeginsWithLoop)
{
    EXPECT_EQ(countPresentLoopDevices(), 0);
    for (const char* name : {"loop0", "loop7", "loop249", "loop", "loop7p1", "loopback"}) {
        loops.addNode(name);
    }
    for (const char* name : {"null", "xloop1", "Loop2", "loo", "snd/loop3"}) {
        loops.addNode(name);
    }

    EXPECT_EQ(countPresentLoopDevices(), 6);
    expectSteps({});
}

TEST_F(LoopDeviceCount, TheControlDeviceIsNoNode)
{
    loops.addNode("loop-control");
    loops.addNode("loop-control2");
    EXPECT_EQ(countPresentLoopDevices(), 0);

    loops.addNode("loop-contro");
    EXPECT_EQ(countPresentLoopDevices(), 1);
}

TEST_F(LoopDeviceCount, ADirectoryCountsAsItselfAndItsContentsDoNot)
{
    loops.addNode("loop/loop0");
    loops.addNode("loop/loop1");

    EXPECT_EQ(countPresentLoopDevices(), 1);
}

TEST_F(LoopDeviceCount, ALinkThatLeadsNowhereCounts)
{
    ASSERT_EQ(symlink("/opt/media/nowhere", (LoopDevices::kNodes + std::string("loop0")).c_str()),
              0);

    EXPECT_EQ(countPresentLoopDevices(), 1);
}

TEST_F(LoopDeviceCount, DevicesThatCannotBeListedRaise)
{
    openInstead("/dev", "/opt/media/nothing");

    try {
        countPresentLoopDevices();
        FAIL() << "nothing was raised";
    } catch (const boost::filesystem::filesystem_error& error) {
        EXPECT_EQ(error.code().value(), ENOENT);
        EXPECT_EQ(error.path1(), "/dev");
    }
}

TEST_F(LoopDeviceCount, CountingLeavesNothingOpen)
{
    loops.present(3);
    loops.mounted(3);
    const int before = openDescriptors();

    EXPECT_EQ(countPresentLoopDevices(), 3);
    EXPECT_EQ(countMountedLoopDevices(), 3);

    EXPECT_EQ(openDescriptors(), before);
}

// What the machine itself has; a loop device may come or go on it at any time.
TEST(RealLoopDeviceCount, AgreesWithTheMachine)
{
    const auto nodes = [] {
        int count = 0;
        DIR* directory = opendir("/dev");
        while (const dirent* entry = readdir(directory)) {
            const std::string name = entry->d_name;
            count += name.substr(0, 4) == "loop" && name != "loop-control" ? 1 : 0;
        }
        closedir(directory);
        return count;
    };
    const auto mounts = [] {
        int count = 0;
        std::ifstream table("/proc/self/mounts");
        for (std::string line; std::getline(table, line);) {
            count += line.substr(0, 9) == "/dev/loop" ? 1 : 0;
        }
        return count;
    };
    for (int attempt = 0; attempt < 10; ++attempt) {
        if (countPresentLoopDevices() == nodes() && countMountedLoopDevices() == mounts()) {
            return;
        }
    }
    EXPECT_EQ(countPresentLoopDevices(), nodes());
    EXPECT_EQ(countMountedLoopDevices(), mounts());
}

class KindOfPath : public DeviceTest
{
protected:
    KindOfPath()
    {
        writeFile("/opt/media/file", "a file");
        makeDirectory("/opt/media/directory");
        EXPECT_EQ(symlink("file", "/opt/media/link-to-file"), 0);
        EXPECT_EQ(symlink("directory", "/opt/media/link-to-directory"), 0);
        EXPECT_EQ(symlink("nowhere", "/opt/media/link-to-nowhere"), 0);
        EXPECT_EQ(mkfifo("/opt/media/pipe", 0600), 0);
    }
};

TEST_F(KindOfPath, AFileIsARegularFileOrALinkToOne)
{
    EXPECT_TRUE(IsFile("/opt/media/file"));
    EXPECT_TRUE(IsFile("/opt/media/link-to-file"));
    for (const char* path :
         {"/opt/media/directory", "/opt/media/link-to-directory", "/opt/media/link-to-nowhere",
          "/opt/media/pipe", "/dev/null", "/opt/media/nothing", "/opt/media/file/below", ""}) {
        EXPECT_FALSE(IsFile(path)) << path;
    }
    expectSteps({});
}

TEST_F(KindOfPath, ADirectoryIsADirectoryOrALinkToOne)
{
    EXPECT_TRUE(IsDir("/opt/media/directory"));
    EXPECT_TRUE(IsDir("/opt/media/directory/"));
    EXPECT_TRUE(IsDir("/opt/media/link-to-directory"));
    for (const char* path :
         {"/opt/media/file", "/opt/media/link-to-file", "/opt/media/link-to-nowhere",
          "/opt/media/pipe", "/dev/null", "/opt/media/nothing", "/opt/media/file/below", ""}) {
        EXPECT_FALSE(IsDir(path)) << path;
    }
    expectSteps({});
}

}  // namespace
}  // namespace quillon::test
