// A module's package: its download, its mount, its unmount.

#include <boost/filesystem.hpp>
#include <cerrno>
#include <string>
#include <vector>

#include "offered-firmware.h"

namespace quillon::test {
namespace {

using namespace fakes;

class Packages : public OfferedFirmware
{
protected:
    Packages() { install(Module()); }

    /// The package is there and its mount point as well.
    void download() const
    {
        writeFile(kPackage, "a package");
        makeDirectory(kMountPoint);
    }

    const Step saidMountFailed =
        LogFrom("mountEMPImage", ERROR, "Error: Firmware EMP Mount Fail.(tunerempA1)");
    const Step saidUnmountFailed =
        LogFrom("unmountEMPImage", ERROR, "Error: Firmware EMP UMount Fail.(tunerempA1)");
    const Step saidNoMountPoint =
        LogFrom("UMount", ERROR, "Umount dir[" + std::string(kMountPoint) + "] is invalid.");
};

TEST_F(Packages, TheDownloadIsRequestedUnderThePackagesName)
{
    EXPECT_TRUE(module.downloadEMP());

    expectSteps({Call("ABM_DownloadAppBinary(null, null, \"tunerempA1\") = true"),
                 LogFrom("downloadEMP", INFO, "Request (tunerempA1) emp download")});
}

TEST_F(Packages, ARefusedDownloadIsAFailure)
{
    platform().download.always(false);

    EXPECT_FALSE(module.downloadEMP());

    expectSteps(
        {Call("ABM_DownloadAppBinary(null, null, \"tunerempA1\") = false"),
         LogFrom("downloadEMP", ERROR, "Error: EMP ABM_DownloadAppBinary fail.(tunerempA1)")});
}

TEST_F(Packages, NothingIsDownloadedForAModuleThatIsNotLoaded)
{
    device.addModule("EXT-tool");
    FWUpdateSymbol process("EXT-tool");
    ASSERT_EQ(process.loadSymbol("EXT-tool"), 0);
    FWUpdateSymbol never("never");
    clear();

    EXPECT_FALSE(process.downloadEMP());
    EXPECT_FALSE(never.downloadEMP());

    expectSteps({});
}

TEST_F(Packages, AMountBeginsWithAnUnmount)
{
    download();

    EXPECT_TRUE(module.mountEMPImage());

    expectSteps(mountedAnew);
}

TEST_F(Packages, TheFirstMountMakesItsMountPoint)
{
    writeFile(kPackage, "a package");
    recordCalls({"mkdir"});

    EXPECT_TRUE(module.mountEMPImage());

    expectSteps({saidNoMountPoint, Call("mkdir(\"" + std::string(kMountPoint) + "\", 0775) = 0"),
                 announced, mountCall(0)});
}

TEST_F(Packages, AMountAfterAMountUnmountsFirst)
{
    download();
    int mounts = 0;
    platform().psMount.always([&mounts](const char*) {
        ++mounts;
        return std::make_pair(0, 0);
    });
    platform().psUmount.always([&mounts](const char*) {
        const int result = mounts > 0 ? 0 : -1;
        mounts -= mounts > 0 ? 1 : 0;
        return std::make_pair(result, 0);
    });

    EXPECT_TRUE(module.mountEMPImage());
    EXPECT_TRUE(module.mountEMPImage());

    EXPECT_EQ(mounts, 1);
    expectSteps(Steps{umountCall(-1), saidNotUnmounted, announced, mountCall(0)} + mountedAnew);
}

TEST_F(Packages, APackageThatIsNotThereIsNotMounted)
{
    makeDirectory(kMountPoint);

    EXPECT_FALSE(module.mountEMPImage());

    expectSteps(
        {LogFrom("mountEMPImage", ERROR, "Error: file no exist (" + std::string(kPackage) + ")")});
}

TEST_F(Packages, AProcessModuleHasNoPackageToMount)
{
    device.addModule("EXT-tool");
    FWUpdateSymbol process("EXT-tool");
    ASSERT_EQ(process.loadSymbol("EXT-tool"), 0);
    clear();

    EXPECT_FALSE(process.mountEMPImage());

    expectSteps({LogFrom("mountEMPImage", ERROR, "Error: file no exist ()")});
}

TEST_F(Packages, APackageIsNotMountedForAModuleThatIsNoLongerLoaded)
{
    download();
    device.addModule("EXT-tool");
    ASSERT_EQ(module.loadSymbol("EXT-tool"), 0);
    clear();

    EXPECT_FALSE(module.mountEMPImage());

    expectSteps(
        {LogFrom("mountEMPImage", ERROR, "Error: file no exist (" + std::string(kPackage) + ")")});
}

TEST_F(Packages, AFailedMountSaysWhichPackageAndLeavesItUnmounted)
{
    download();
    loops.present(1);
    platform().psMount.then({{-1, 0}});

    EXPECT_FALSE(module.mountEMPImage());

    expectSteps({umountCall(0), saidUnmounted, announced, mountCall(-1),
                 LogFrom("loop_mount", INFO,
                         "Fail PS_Mount: file:[" + std::string(kPackage) + "], dest:[" +
                             kMountPoint + "], retVal:[-1], result:[0]"),
                 LogFrom("loop_mount", INFO, "loop count is 1, mount count is 0"),
                 saidMountFailed});
}

TEST_F(Packages, ADirectoryInThePlaceOfThePackageCannotBeMounted)
{
    makeDirectory(kPackage);
    makeDirectory(kMountPoint);

    EXPECT_FALSE(module.mountEMPImage());

    expectSteps({umountCall(0), saidUnmounted,
                 LogFrom("Mount", ERROR, "srcFile[" + std::string(kPackage) + "] is not exist."),
                 saidMountFailed});
}

TEST_F(Packages, DevicesThatCannotBeListedAreTheCallersTrouble)
{
    download();
    platform().psMount.then({{-1, 0}});
    failCall("opendir", EACCES);

    EXPECT_THROW(module.mountEMPImage(), boost::filesystem::filesystem_error);
}

TEST_F(Packages, AnUnmountIsLoggedAsAnErrorEvenWhenItSucceeds)
{
    makeDirectory(kMountPoint);

    EXPECT_TRUE(module.unmountEMPImage());

    expectSteps(unmounted);
}

TEST_F(Packages, AFailedUnmountIsAFailure)
{
    makeDirectory(kMountPoint);
    platform().psUmount.then({{-1, 0}});

    EXPECT_FALSE(module.unmountEMPImage());

    expectSteps({umountCall(-1), saidNotUnmounted, saidUnmountFailed});
}

TEST_F(Packages, APackageThatNeverWasMountedCannotBeUnmounted)
{
    EXPECT_FALSE(module.unmountEMPImage());

    expectSteps({saidNoMountPoint, saidUnmountFailed});
}

TEST_F(Packages, UnmountingAsksEvenForAModuleThatIsNotLoaded)
{
    makeDirectory("/opt/usr/apps/appbinarymanager/emps");
    FWUpdateSymbol never("never");

    EXPECT_TRUE(never.unmountEMPImage());

    expectSteps(
        {Call("PS_Umount(\"/opt/usr/apps/appbinarymanager/emps/\", 36, 0, 0) = 0"),
         LogFrom("UMount", INFO, "Umount dir[/opt/usr/apps/appbinarymanager/emps/] successfully."),
         LogFrom("unmountEMPImage", ERROR, "EMP UMount Success ")});
}

TEST_F(Packages, AnUnmountLeavesPackageAndMountPointInPlace)
{
    download();

    EXPECT_TRUE(module.unmountEMPImage());

    EXPECT_TRUE(isThere(kPackage));
    EXPECT_TRUE(isThere(kMountPoint));
}

}  // namespace
}  // namespace quillon::test
