// Mounting an image file while loop devices are to be had.

#include "fw-update-mount-manager.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "loop-devices.h"
#include "support/device-fixture.h"

namespace quillon::test {
namespace {

using namespace fakes;

const std::string kImage = "/opt/media/package.img";
const std::string kMountPoint = "/opt/media/mounted";
const std::string kRequest = "-o ro,loop,nodev,nosuid /opt/media/package.img /opt/media/mounted";

class MountImage : public DeviceTest
{
protected:
    MountImage() { writeFile(kImage, "an image"); }

    int mount() { return manager->Mount(kImage, kMountPoint); }

    static Step said(const std::string& text) { return LogFrom("Mount", ERROR, text); }
    static Step answered(int retVal, int result)
    {
        return Call("PS_Mount(\"" + kRequest + "\", 1024, 0, " + std::to_string(result) +
                    ") = " + std::to_string(retVal));
    }
    static Step mountFailed(int retVal, int result)
    {
        return LogFrom("loop_mount", INFO,
                       "Fail PS_Mount: file:[" + kImage + "], dest:[" + kMountPoint +
                           "], retVal:[" + std::to_string(retVal) + "], result:[" +
                           std::to_string(result) + "]");
    }
    static bool isThere(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

    const Step announced = LogFrom("loop_mount", INFO, "PsMntCmd:[" + kRequest + "]");

    const LoopDevices loops;
    FWMountManager* const manager = FWMountManager::getInstance();
};

TEST_F(MountImage, AsksOnceForAReadOnlyLoopMount)
{
    makeDirectory(kMountPoint);

    EXPECT_EQ(mount(), 0);

    expectSteps({announced, answered(0, 0)});
}

TEST_F(MountImage, FillsTheWholeRequestBufferUpWithZeros)
{
    std::string buffer;
    platform().psMount.always([&buffer](const char* request) {
        buffer.assign(request, 1024);
        return std::make_pair(0, 0);
    });

    EXPECT_EQ(mount(), 0);

    EXPECT_EQ(buffer, kRequest + std::string(1024 - kRequest.size(), '\0'));
}

TEST_F(MountImage, CutsARequestThatDoesNotFitAndStillTerminatesIt)
{
    std::string image = "/opt/media";
    for (int depth = 0; depth < 5; ++depth) {
        image += "/" + std::string(200, 'x');
    }
    writeFile(image, "an image");

    EXPECT_EQ(manager->Mount(image, kMountPoint), 0);

    const std::string cut = ("-o ro,loop,nodev,nosuid " + image).substr(0, 1023);
    ASSERT_EQ(cut.size(), 1023U);
    expectSteps({LogFrom("loop_mount", INFO, "PsMntCmd:[" + cut + "]"),
                 Call("PS_Mount(\"" + cut + "\", 1024, 0, 0) = 0")});
}

TEST_F(MountImage, RefusesAnEmptySourceOrDestination)
{
    recordCalls({"stat", "access", "mkdir"});
    const Step refused = said("Source file or dest dir is empty.");

    EXPECT_EQ(manager->Mount("", kMountPoint), -1);
    EXPECT_EQ(manager->Mount(kImage, ""), -1);
    EXPECT_EQ(manager->Mount("", ""), -1);

    expectSteps({refused, refused, refused});
}

TEST_F(MountImage, RefusesAMissingSourceAndMakesNoMountPoint)
{
    recordCalls({"access", "mkdir"});

    EXPECT_EQ(manager->Mount("/opt/media/none.img", kMountPoint), -1);

    expectSteps({said("srcFile[/opt/media/none.img] is not exist.")});
    EXPECT_FALSE(isThere(kMountPoint));
}

TEST_F(MountImage, ADirectoryIsNoSource)
{
    makeDirectory("/opt/media/directory.img");

    EXPECT_EQ(manager->Mount("/opt/media/directory.img", kMountPoint), -1);

    expectSteps({said("srcFile[/opt/media/directory.img] is not exist.")});
    EXPECT_FALSE(isThere(kMountPoint));
}

TEST_F(MountImage, FollowsALinkToTheSourceAndAsksForItByTheLinksName)
{
    ASSERT_EQ(symlink(kImage.c_str(), "/opt/media/link.img"), 0);

    EXPECT_EQ(manager->Mount("/opt/media/link.img", kMountPoint), 0);

    expectTexts(callTexts(), {"PS_Mount(\"-o ro,loop,nodev,nosuid /opt/media/link.img " +
                              kMountPoint + "\", 1024, 0, 0) = 0"});
}

TEST_F(MountImage, MakesTheMissingMountPointBeforeItAsks)
{
    recordCalls({"stat", "access", "mkdir"});

    EXPECT_EQ(mount(), 0);

    expectSteps({Call("stat(\"" + kImage + "\") = 0"),
                 Call("access(\"" + kMountPoint + "\", F_OK) = -1"),
                 Call("mkdir(\"" + kMountPoint + "\", 0775) = 0"), announced, answered(0, 0)});
}

TEST_F(MountImage, GroupAndOwnerMayWriteToTheMountPointThatItMakes)
{
    umask(0);

    EXPECT_EQ(mount(), 0);

    struct stat status = {};
    ASSERT_EQ(stat(kMountPoint.c_str(), &status), 0);
    EXPECT_TRUE(S_ISDIR(status.st_mode));
    EXPECT_EQ(status.st_mode & 07777U, 0775U);
}

TEST_F(MountImage, UsesAMountPointThatIsThereAsItIs)
{
    makeDirectory(kMountPoint);
    ASSERT_EQ(chmod(kMountPoint.c_str(), 0700), 0);
    recordCalls({"mkdir"});

    EXPECT_EQ(mount(), 0);

    expectSteps({announced, answered(0, 0)});
    struct stat status = {};
    ASSERT_EQ(stat(kMountPoint.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0700U);
}

TEST_F(MountImage, AsksEvenWhenAFileIsInThePlaceOfTheMountPoint)
{
    writeFile(kMountPoint, "a file");
    recordCalls({"mkdir"});

    EXPECT_EQ(mount(), 0);

    expectSteps({announced, answered(0, 0)});
}

TEST_F(MountImage, SaysWhyTheMountPointCannotBeMade)
{
    EXPECT_EQ(manager->Mount(kImage, "/opt/media/none/below"), -1);

    expectSteps(
        {said("Dest Path [/opt/media/none/below] failed to create! return:[-1], "
              "errno:[2, No such file or directory, ]")});
}

TEST_F(MountImage, SpellsAnErrorOutThatHasNoTextOfItsOwn)
{
    failCall("mkdir", 4000);

    EXPECT_EQ(mount(), -1);

    expectSteps({said("Dest Path [" + kMountPoint +
                      "] failed to create! return:[-1], errno:[4000, "
                      "Unknown error 4000, Unknown error 4000]")});
}

TEST_F(MountImage, ALinkThatLeadsNowhereCannotBecomeAMountPoint)
{
    ASSERT_EQ(symlink("/opt/media/nowhere", kMountPoint.c_str()), 0);

    EXPECT_EQ(mount(), -1);

    expectSteps({said("Dest Path [" + kMountPoint +
                      "] failed to create! return:[-1], errno:[17, File "
                      "exists, ]")});
}

TEST_F(MountImage, FailsUnlessBothValuesAreZero)
{
    loops.present(1);
    const std::vector<std::pair<int, int>> failures = {{-1, 0}, {0, 5}, {-2, 6}, {3, -4}};
    for (const auto& [retVal, result] : failures) {
        platform().psMount.then({{retVal, result}});
        clear();

        EXPECT_EQ(mount(), -1);

        expectSteps({announced, answered(retVal, result), mountFailed(retVal, result),
                     LogFrom("loop_mount", INFO, "loop count is 1, mount count is 0")});
    }
}

TEST_F(MountImage, AFailedMountLeavesTheMountPointThatItMade)
{
    loops.present(1);
    platform().psMount.then({{-1, 0}});

    EXPECT_EQ(mount(), -1);

    EXPECT_TRUE(isThere(kMountPoint));
}

TEST_F(MountImage, LooksAtNoLoopDeviceUnlessTheMountFails)
{
    recordCalls({"opendir", "fopen64"});

    EXPECT_EQ(mount(), 0);

    expectNoStep(Call(like("*open*")));
}

TEST_F(MountImage, TakesPathsAsTextAndNotAsAFormat)
{
    writeFile("/opt/media/100%s%n.img", "an image");

    EXPECT_EQ(manager->Mount("/opt/media/100%s%n.img", "/opt/media/%d"), 0);
    EXPECT_EQ(manager->Mount("/opt/media/%s.img", "/opt/media/%d"), -1);

    const std::string request = "-o ro,loop,nodev,nosuid /opt/media/100%s%n.img /opt/media/%d";
    expectSteps({LogFrom("loop_mount", INFO, "PsMntCmd:[" + request + "]"),
                 Call("PS_Mount(\"" + request + "\", 1024, 0, 0) = 0"),
                 said("srcFile[/opt/media/%s.img] is not exist.")});
}

TEST_F(MountImage, LoopMountAsksWithTheOptionsThatItIsGivenAndChecksNoPath)
{
    recordCalls({"stat", "access", "mkdir"});

    EXPECT_TRUE(loop_mount("/from", "/to", "rw,noexec"));

    expectSteps({LogFrom("loop_mount", INFO, "PsMntCmd:[-o rw,noexec /from /to]"),
                 Call("PS_Mount(\"-o rw,noexec /from /to\", 1024, 0, 0) = 0")});
}

TEST_F(MountImage, ThereIsOneManagerAndItSaysNothing)
{
    EXPECT_EQ(FWMountManager::getInstance(), manager);
    expectSteps({});
}

}  // namespace
}  // namespace quillon::test
