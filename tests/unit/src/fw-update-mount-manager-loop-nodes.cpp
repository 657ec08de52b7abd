// Mounting an image file when the loop devices have run out.

#include <boost/filesystem.hpp>
#include <cerrno>
#include <string>
#include <vector>

#include "fw-update-mount-manager.h"
#include "loop-devices.h"
#include "support/device-fixture.h"

namespace quillon::test {
namespace {

using namespace fakes;

const std::string kImage = "/opt/media/package.img";
const std::string kMountPoint = "/opt/media/mounted";
const std::string kRequest = "-o ro,loop,nodev,nosuid /opt/media/package.img /opt/media/mounted";

class LoopNodes : public DeviceTest
{
protected:
    LoopNodes()
    {
        writeFile(kImage, "an image");
        makeDirectory(kMountPoint);
    }

    static int mount() { return FWMountManager::getInstance()->Mount(kImage, kMountPoint); }

    static std::string mountCall(int retVal, int result)
    {
        return "PS_Mount(\"" + kRequest + "\", 1024, 0, " + std::to_string(result) +
               ") = " + std::to_string(retVal);
    }
    static std::string nodeCall(int number, int retVal = 0, int result = 0)
    {
        const std::string text = std::to_string(number);
        return "PS_Mknod(\"-m 0660 -Z * /dev/loop" + text + "  b 7 " + text + "\", 1024, 0, " +
               std::to_string(result) + ") = " + std::to_string(retVal);
    }
    static Step mountFailed(int priority, int retVal, int result)
    {
        return LogFrom("loop_mount", priority,
                       "Fail PS_Mount: file:[" + kImage + "], dest:[" + kMountPoint +
                           "], retVal:[" + std::to_string(retVal) + "], result:[" +
                           std::to_string(result) + "]");
    }
    static Step counted(int present, int mounted)
    {
        return LogFrom("loop_mount", INFO,
                       "loop count is " + std::to_string(present) + ", mount count is " +
                           std::to_string(mounted));
    }

    /// The calls that follow when no mount works, with nodes made from that number on.
    static std::vector<std::string> callsFrom(int first)
    {
        std::vector<std::string> calls = {mountCall(-1, 0)};
        for (int number = first; number < 250; ++number) {
            calls.push_back(nodeCall(number));
            calls.push_back(mountCall(-1, 0));
        }
        return calls;
    }

    const Step announced = LogFrom("loop_mount", INFO, "PsMntCmd:[" + kRequest + "]");

    const LoopDevices loops;
};

TEST_F(LoopNodes, TheNextNodeIsMadeWhenAllAreInUseAndTheMountTriedAgain)
{
    loops.present(8);
    loops.mounted(8);
    platform().psMount.then({{-1, 2}});

    EXPECT_EQ(mount(), 0);

    expectSteps({announced, Call(mountCall(-1, 2)), mountFailed(INFO, -1, 2), counted(8, 8),
                 Call(nodeCall(8)), Call(mountCall(0, 0))});
}

TEST_F(LoopNodes, EachNumberUpTo249IsTriedInOrder)
{
    loops.present(8);
    loops.mounted(8);
    platform().psMount.always({-1, 0});

    EXPECT_EQ(mount(), -1);

    EXPECT_EQ(callTexts(), callsFrom(8));
    EXPECT_EQ(callTexts().size(), 1U + 2U * 242U);
}

TEST_F(LoopNodes, ARefusedNodeIsPassedByWithoutAMount)
{
    loops.present(8);
    loops.mounted(8);
    platform().psMount.then({{-1, 0}});
    platform().psMknod.then({{-17, 0}, {0, 17}, {3, 4}});

    EXPECT_EQ(mount(), 0);

    expectSteps({announced, Call(mountCall(-1, 0)), mountFailed(INFO, -1, 0), counted(8, 8),
                 Call(nodeCall(8, -17, 0)),
                 LogFrom("loop_mount", ERROR, "PS_Mknod error, retVal: [-17], result: [0]"),
                 Call(nodeCall(9, 0, 17)),
                 LogFrom("loop_mount", ERROR, "PS_Mknod error, retVal: [0], result: [17]"),
                 Call(nodeCall(10, 3, 4)),
                 LogFrom("loop_mount", ERROR, "PS_Mknod error, retVal: [3], result: [4]"),
                 Call(nodeCall(11)), Call(mountCall(0, 0))});
}

TEST_F(LoopNodes, AFailedMountIsFollowedByTheNextNodeUntilOneWorks)
{
    loops.present(2);
    loops.mounted(2);
    platform().psMount.then({{-1, 0}, {0, 5}, {-6, 7}, {-8, 0}});

    EXPECT_EQ(mount(), 0);

    expectSteps({announced, Call(mountCall(-1, 0)), mountFailed(INFO, -1, 0), counted(2, 2),
                 Call(nodeCall(2)), Call(mountCall(0, 5)), mountFailed(ERROR, 0, 5),
                 Call(nodeCall(3)), Call(mountCall(-6, 7)), mountFailed(ERROR, -6, 7),
                 Call(nodeCall(4)), Call(mountCall(-8, 0)), mountFailed(ERROR, -8, 0),
                 Call(nodeCall(5)), Call(mountCall(0, 0))});
}

TEST_F(LoopNodes, EveryRequestFillsItsBufferUpWithZeros)
{
    loops.present(99);
    loops.mounted(99);
    std::vector<std::string> nodes;
    std::vector<std::string> mounts;
    platform().psMknod.always([&nodes](const char* request) {
        nodes.emplace_back(request, 1024);
        return std::make_pair(0, 0);
    });
    platform().psMount.always([&mounts](const char* request) {
        mounts.emplace_back(request, 1024);
        return std::make_pair(mounts.size() < 3 ? -1 : 0, 0);
    });

    EXPECT_EQ(mount(), 0);

    const auto filledUp = [](std::string text) {
        text.resize(1024, '\0');
        return text;
    };
    expectTexts(nodes, {filledUp("-m 0660 -Z * /dev/loop99  b 7 99"),
                        filledUp("-m 0660 -Z * /dev/loop100  b 7 100")});
    expectTexts(mounts, {filledUp(kRequest), filledUp(kRequest), filledUp(kRequest)});
}

TEST_F(LoopNodes, NothingMoreIsTriedWhileANodeIsFree)
{
    loops.present(8);
    loops.mounted(5);
    platform().psMount.then({{-1, 0}});

    EXPECT_EQ(mount(), -1);

    expectSteps({announced, Call(mountCall(-1, 0)), mountFailed(INFO, -1, 0), counted(8, 5)});
}

TEST_F(LoopNodes, NothingMoreIsTriedWhenMoreAreMountedThanThereAre)
{
    loops.present(5);
    loops.mounted(8);
    platform().psMount.then({{-1, 0}});

    EXPECT_EQ(mount(), -1);

    expectLastSteps({mountFailed(INFO, -1, 0), counted(5, 8)});
}

TEST_F(LoopNodes, ADeviceWithoutAnyNodeGetsItsFirst)
{
    loops.present(0);
    loops.mounted(0);
    platform().psMount.then({{-1, 0}});

    EXPECT_EQ(mount(), 0);

    expectTexts(callTexts(), {mountCall(-1, 0), nodeCall(0), mountCall(0, 0)});
}

TEST_F(LoopNodes, TheLastNodeHasTheNumber249)
{
    loops.present(249);
    loops.mounted(249);
    platform().psMount.always({-1, 0});

    EXPECT_EQ(mount(), -1);

    expectTexts(callTexts(), {mountCall(-1, 0), nodeCall(249), mountCall(-1, 0)});
}

TEST_F(LoopNodes, NoNodeIsMadeFrom250MountsOn)
{
    for (const int count : {250, 251, 300}) {
        loops.present(count);
        loops.mounted(count);
        platform().psMount.then({{-1, 0}});
        clear();

        EXPECT_EQ(mount(), -1);

        expectSteps(
            {announced, Call(mountCall(-1, 0)), mountFailed(INFO, -1, 0), counted(count, count)});
    }
}

TEST_F(LoopNodes, TheNodesAreCountedBeforeTheMounts)
{
    loops.present(1);
    platform().psMount.then({{-1, 0}});
    recordCalls({"opendir", "fopen64"});

    EXPECT_EQ(mount(), -1);

    expectSteps({announced, Call(mountCall(-1, 0)), mountFailed(INFO, -1, 0),
                 Call("opendir(\"/dev\") = ok"), Call(like("*fopen64(\"/proc/mounts\"*")),
                 counted(1, 0)});
}

TEST_F(LoopNodes, AnUnreadableMountTableCountsAsNoMount)
{
    loops.present(0);
    platform().psMount.then({{-1, 0}});
    failCall("fopen64", EACCES);

    EXPECT_EQ(mount(), 0);

    expectTexts(callTexts(), {mountCall(-1, 0), nodeCall(0), mountCall(0, 0)});
}

TEST_F(LoopNodes, DevicesThatCannotBeListedAreTheCallersTrouble)
{
    loops.mounted(0);
    platform().psMount.then({{-1, 0}});
    failCall("opendir", EACCES);

    try {
        mount();
        FAIL() << "nothing was raised";
    } catch (const boost::filesystem::filesystem_error& error) {
        EXPECT_EQ(error.code().value(), EACCES);
        EXPECT_EQ(error.path1(), "/dev");
    }

    expectSteps({announced, Call(mountCall(-1, 0)), mountFailed(INFO, -1, 0)});
}

TEST_F(LoopNodes, AMountThatWorksDoesNotMindDevicesThatCannotBeListed)
{
    failCall("opendir", EACCES);

    EXPECT_EQ(mount(), 0);
}

}  // namespace
}  // namespace quillon::test
