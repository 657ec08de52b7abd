// Where a module's information file and image are looked for.

#include <stdexcept>
#include <string>

#include "fw-update-symbol.h"
#include "support/device-fixture.h"

namespace quillon::test {
namespace {

using namespace fakes;

UPDATE_TYPE typeFor(int caller, const char* argument)
{
    std::string text = argument;
    return CallerToUpdateType(static_cast<CallerTypes>(caller), text.data());
}

TEST(CallerToUpdateTypeTest, FollowsTheTable)
{
    EXPECT_EQ(typeFor(0, "anything"), UPDATE_USB);
    EXPECT_EQ(typeFor(2, "USB"), UPDATE_EMP);
    EXPECT_EQ(typeFor(3, "USB"), UPDATE_EMP);
    EXPECT_EQ(typeFor(4, "USB"), UPDATE_EXT);
    EXPECT_EQ(typeFor(5, "USB"), UPDATE_SBOX);
    EXPECT_EQ(typeFor(6, "USB"), UPDATE_EXT);
    EXPECT_EQ(typeFor(7, "USB"), UPDATE_EXT);
    EXPECT_EQ(typeFor(8, "USB"), UPDATE_EMP);
    EXPECT_EQ(typeFor(9, "USB"), UPDATE_EMP);
    EXPECT_EQ(typeFor(-1, "USB"), UPDATE_EMP);
}

TEST(CallerToUpdateTypeTest, TheNumbersOfTheSourcesAreFixed)
{
    EXPECT_EQ(static_cast<int>(UPDATE_USB), 0);
    EXPECT_EQ(static_cast<int>(UPDATE_EMP), 1);
    EXPECT_EQ(static_cast<int>(UPDATE_EXT), 2);
    EXPECT_EQ(static_cast<int>(UPDATE_SBOX), 3);
    EXPECT_EQ(sizeof(UPDATE_TYPE), 4U);
    EXPECT_EQ(sizeof(CallerTypes), 4U);
}

TEST(CallerToUpdateTypeTest, CallerOneMeansAStickOnlyForExactlyUSB)
{
    EXPECT_EQ(typeFor(1, "USB"), UPDATE_USB);
    EXPECT_EQ(typeFor(1, "usb"), UPDATE_EMP);
    EXPECT_EQ(typeFor(1, ""), UPDATE_EMP);
    EXPECT_EQ(typeFor(1, "USB "), UPDATE_EMP);
    EXPECT_EQ(typeFor(1, "US"), UPDATE_EMP);
}

TEST(CallerToUpdateTypeTest, ANullArgumentIsAProgrammingErrorForCallerOneOnly)
{
    EXPECT_THROW(CallerToUpdateType(CALLER_ARGUMENT, nullptr), std::logic_error);
    for (const int caller : {0, 2, 3, 4, 5, 6, 7, 9}) {
        EXPECT_NO_THROW(CallerToUpdateType(static_cast<CallerTypes>(caller), nullptr)) << caller;
    }
}

class ModulePaths : public DeviceTest
{
protected:
    ModulePaths()
    {
        device.addModule("tuner", Module().withEmpid("tunerempA1"));
        module.loadSymbol("tuner");
        clear();
    }

    static void plug(const std::string& slot) { makeDirectory("/opt/media/USBDriveA" + slot); }

    FWUpdateSymbol module{"tuner"};
};

TEST_F(ModulePaths, OnAStickLieInTheDirectoriesOfTheFirmwareName)
{
    plug("");

    EXPECT_EQ(module.getInformationPath(UPDATE_USB), "/opt/media/USBDriveA/tunerA1/info.json");
    EXPECT_EQ(module.getBinaryPath(UPDATE_USB), "/opt/media/USBDriveA/tunerA1/tunerA1.bin");
    expectSteps({});
}

TEST_F(ModulePaths, InThePackageLieInTheDirectoryOfThePackageName)
{
    EXPECT_EQ(module.getInformationPath(UPDATE_EMP),
              "/opt/usr/apps/appbinarymanager/emps/tunerempA1/info.json");
    EXPECT_EQ(module.getBinaryPath(UPDATE_EMP),
              "/opt/usr/apps/appbinarymanager/emps/tunerempA1/tunerA1.bin");
}

TEST_F(ModulePaths, InTheSystemAreaLieInTheDirectoryOfTheFirmwareName)
{
    EXPECT_EQ(module.getInformationPath(UPDATE_EXT), "/lib/firmware/ext/tunerA1/info.json");
    EXPECT_EQ(module.getBinaryPath(UPDATE_EXT), "/lib/firmware/ext/tunerA1/tunerA1.bin");
}

TEST_F(ModulePaths, InTheSharedAreaLieInTheDirectoryOfTheFirmwareName)
{
    EXPECT_EQ(module.getInformationPath(UPDATE_SBOX), "/opt/usr/share/sbox/tunerA1/info.json");
    EXPECT_EQ(module.getBinaryPath(UPDATE_SBOX), "/opt/usr/share/sbox/tunerA1/tunerA1.bin");
}

TEST_F(ModulePaths, OfASourceThatIsNotDefinedAreThoseOfThePackage)
{
    for (const int source : {7, 4, -1}) {
        const auto type = static_cast<UPDATE_TYPE>(source);
        EXPECT_EQ(module.getInformationPath(type),
                  "/opt/usr/apps/appbinarymanager/emps/tunerempA1/info.json");
        EXPECT_EQ(module.getBinaryPath(type),
                  "/opt/usr/apps/appbinarymanager/emps/tunerempA1/tunerA1.bin");
    }
}

TEST_F(ModulePaths, OnAStickAreEmptyAndReportedWhenThereIsNoStick)
{
    EXPECT_EQ(module.getInformationPath(UPDATE_USB), "");
    EXPECT_EQ(module.getBinaryPath(UPDATE_USB), "");

    expectSteps({LogFrom("getInformationPath", ERROR, "Error: Usb mount path Not found."),
                 LogFrom("getBinaryPath", ERROR, "Error: Usb mount path Not found.")});
}

TEST_F(ModulePaths, FollowTheStickIntoANumberedSlot)
{
    plug("4");

    EXPECT_EQ(module.getInformationPath(UPDATE_USB), "/opt/media/USBDriveA4/tunerA1/info.json");
    EXPECT_EQ(module.getBinaryPath(UPDATE_USB), "/opt/media/USBDriveA4/tunerA1/tunerA1.bin");
}

TEST_F(ModulePaths, TheUnnumberedStickComesFirst)
{
    plug("");
    plug("1");

    std::string stick;
    EXPECT_TRUE(module.getUsbMountPath(stick));

    EXPECT_EQ(stick, "/opt/media/USBDriveA/");
}

TEST_F(ModulePaths, TheLowestNumberedStickComesNext)
{
    plug("10");
    plug("7");
    plug("2");

    std::string stick;
    EXPECT_TRUE(module.getUsbMountPath(stick));

    EXPECT_EQ(stick, "/opt/media/USBDriveA2/");
}

TEST_F(ModulePaths, TheFirstAndTheTenthNumberCount)
{
    std::string stick;
    plug("10");
    EXPECT_TRUE(module.getUsbMountPath(stick));
    EXPECT_EQ(stick, "/opt/media/USBDriveA10/");

    plug("1");
    EXPECT_TRUE(module.getUsbMountPath(stick));
    EXPECT_EQ(stick, "/opt/media/USBDriveA1/");
}

TEST_F(ModulePaths, AStickUnderAnotherNumberIsNotFoundAndTheAnswerNotTouched)
{
    plug("0");
    plug("11");

    std::string stick = "as before";
    EXPECT_FALSE(module.getUsbMountPath(stick));

    EXPECT_EQ(stick, "as before");
    expectSteps({});
}

TEST_F(ModulePaths, AFileInThePlaceOfAStickIsNone)
{
    writeFile("/opt/media/USBDriveA", "not a directory");

    std::string stick;
    EXPECT_FALSE(module.getUsbMountPath(stick));
}

TEST_F(ModulePaths, FileExistsForAnythingThatIsThere)
{
    writeFile("/opt/media/file", "");

    EXPECT_TRUE(module.file_exists("/opt/media/file"));
    EXPECT_TRUE(module.file_exists("/opt/media"));
    EXPECT_FALSE(module.file_exists("/opt/media/nothing"));
    EXPECT_FALSE(module.file_exists(""));
}

TEST_F(ModulePaths, ThePackageExistsOnceItIsDownloaded)
{
    EXPECT_FALSE(module.getIMGExists());

    writeFile("/opt/usr/apps/appbinarymanager/tunerempA1.img", "package");

    EXPECT_TRUE(module.getIMGExists());
}

TEST_F(ModulePaths, ARecordThatIsNotLoadedHasNoPackage)
{
    writeFile("/opt/usr/apps/appbinarymanager/.img", "package");

    EXPECT_FALSE(FWUpdateSymbol("tuner").getIMGExists());
}

TEST_F(ModulePaths, AProcessModuleHasNoPackageEvenWhereItsLibraryNameWouldPointToOne)
{
    device.addModule("EXT-tool");
    FWUpdateSymbol process("EXT-tool");
    ASSERT_EQ(process.loadSymbol("EXT-tool"), 0);
    for (const char* name : {".img", "EXT-tool.img", "EXT-toolemp.img"}) {
        writeFile(std::string("/opt/usr/apps/appbinarymanager/") + name, "package");
    }

    EXPECT_FALSE(process.getIMGExists());
}

TEST_F(ModulePaths, AModuleThatBecameAProcessModuleHasNoPackageAnyMore)
{
    writeFile("/opt/usr/apps/appbinarymanager/tunerempA1.img", "package");
    ASSERT_TRUE(module.getIMGExists());
    device.addModule("ext-tool");

    ASSERT_EQ(module.loadSymbol("ext-tool"), 0);

    EXPECT_FALSE(module.getIMGExists());
}

}  // namespace
}  // namespace quillon::test
