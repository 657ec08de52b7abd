// Unmounting a directory.

#include <unistd.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "fw-update-mount-manager.h"
#include "support/device-fixture.h"

namespace quillon::test {
namespace {

using namespace fakes;

const std::string kMountPoint = "/opt/media/mounted";  // 18 characters

class UnmountDirectory : public DeviceTest
{
protected:
    UnmountDirectory() { makeDirectory(kMountPoint); }

    static int unmount(const std::string& directory)
    {
        return FWMountManager::getInstance()->UMount(directory);
    }

    static Step said(int priority, const std::string& text)
    {
        return LogFrom("UMount", priority, text);
    }
    static Step answered(int retVal, int result)
    {
        return Call("PS_Umount(\"/opt/media/mounted\", 18, 0, " + std::to_string(result) +
                    ") = " + std::to_string(retVal));
    }
};

TEST_F(UnmountDirectory, AsksWithThePathAndItsLength)
{
    EXPECT_EQ(unmount(kMountPoint), 0);

    expectSteps({answered(0, 0), said(INFO, "Umount dir[/opt/media/mounted] successfully.")});
}

TEST_F(UnmountDirectory, LeavesTheMountPointInPlace)
{
    EXPECT_EQ(unmount(kMountPoint), 0);

    EXPECT_EQ(access(kMountPoint.c_str(), F_OK), 0);
}

TEST_F(UnmountDirectory, RefusesAnEmptyPath)
{
    recordCalls({"stat"});

    EXPECT_EQ(unmount(""), -1);

    expectSteps({said(ERROR, "Input umount dir is empty.")});
}

TEST_F(UnmountDirectory, RefusesWhatIsNoDirectory)
{
    writeFile("/opt/media/file", "a file");

    EXPECT_EQ(unmount("/opt/media/file"), -1);
    EXPECT_EQ(unmount("/opt/media/nothing"), -1);

    expectSteps({said(ERROR, "Umount dir[/opt/media/file] is invalid."),
                 said(ERROR, "Umount dir[/opt/media/nothing] is invalid.")});
}

TEST_F(UnmountDirectory, FollowsALinkToADirectoryAndAsksForItByTheLinksName)
{
    ASSERT_EQ(symlink(kMountPoint.c_str(), "/opt/media/link"), 0);

    EXPECT_EQ(unmount("/opt/media/link"), 0);

    expectTexts(callTexts(), {"PS_Umount(\"/opt/media/link\", 15, 0, 0) = 0"});
}

TEST_F(UnmountDirectory, APathLongerThanARequestIsHandedOnWhole)
{
    std::string directory = "/opt/media";
    for (int depth = 0; depth < 6; ++depth) {
        directory += "/" + std::string(200, 'x');
    }
    makeDirectory(directory);
    ASSERT_EQ(directory.size(), 1216U);

    EXPECT_EQ(unmount(directory), 0);

    expectTexts(callTexts(), {"PS_Umount(\"" + directory + "\", 1216, 0, 0) = 0"});
}

TEST_F(UnmountDirectory, FailsUnlessBothValuesAreZero)
{
    const std::vector<std::pair<int, int>> failures = {{-1, 0}, {0, 22}, {-2, 3}, {4, -5}};
    for (const auto& [retVal, result] : failures) {
        platform().psUmount.then({{retVal, result}});
        clear();

        EXPECT_EQ(unmount(kMountPoint), -1);

        expectSteps(
            {answered(retVal, result), said(ERROR, "Error(iRet1=" + std::to_string(retVal) +
                                                       ", iRet2=" + std::to_string(result) +
                                                       ") while unmounitng [/opt/media/mounted]")});
    }
}

TEST_F(UnmountDirectory, AnExceptionOnTheWayIsAFailureThatIsLogged)
{
    platform().psUmount.thenCall([](const char*) -> std::pair<int, int> {
        throw std::runtime_error("no privileged service");
    });

    EXPECT_EQ(unmount(kMountPoint), -1);

    expectSteps({said(ERROR,
                      "Failed to umount[/opt/media/mounted], "
                      "error[no privileged service].")});
}

TEST_F(UnmountDirectory, WhatIsNoStandardExceptionReachesTheCaller)
{
    platform().psUmount.thenCall([](const char*) -> std::pair<int, int> { throw 1; });

    EXPECT_THROW(unmount(kMountPoint), int);

    expectSteps({});
}

}  // namespace
}  // namespace quillon::test
