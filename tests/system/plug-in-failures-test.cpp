#include <filesystem>

#include "support/sanitizers.h"
#include "support/texts.h"
#include "system/system-test.h"
#include "unit/verifier/test-keys.h"

namespace quillon::test {
namespace {

using std::chrono::milliseconds;

/// One module, "alpha", that misbehaves as each test says.
class PlugInFailures : public SystemTest
{
protected:
    void SetUp() override
    {
        SystemTest::SetUp();
        for (const std::string& name : allModules()) {
            removeModule(name);
        }
        putImage("alpha", "2.0", "payload");
    }

    static void install(const std::string& settings)
    {
        installTestModule("alpha", "need=1\nseconds=5\n" + settings);
    }

    /// How many processes of this device run the service's program.
    static int services()
    {
        const auto program = std::filesystem::canonical(QUILLON_SERVICE_PROGRAM);
        int count = 0;
        for (const auto& process : std::filesystem::directory_iterator("/proc")) {
            std::error_code error;
            count += std::filesystem::read_symlink(process.path() / "exe", error) == program;
        }
        return count;
    }
};

TEST_F(PlugInFailures, AnExceptionInAnUpdateFailsThatUpdateOnly)
{
    for (const char* effect : {"throw", "throw-unknown"}) {
        install(std::string("doUpdate_decryption.effect=") + effect + "\n");
        if (!daemon.isRunning()) {
            startDaemon();
        }
        EXPECT_EQ(update(), MQ_RESULT_FAILED) << effect;
    }
    EXPECT_EQ(daemon.logLinesWith("Error: update task exception doUpdate_decryption").size(), 1U);
    EXPECT_EQ(daemon.logLinesWith("Error: update task exception of an unknown kind").size(), 1U);

    install("");
    EXPECT_EQ(update(), MQ_RESULT_DONE);
}

TEST_F(PlugInFailures, AnExceptionInAnEstimateEndsTheControlTaskAndTheProcessEndsInOrder)
{
    install("checkVersion.effect=throw\n");
    startDaemon();
    ASSERT_TRUE(channel->send(Channel::record(MQ_COMMAND_TIME)));

    EXPECT_TRUE(daemon.logs("Error: control_task exception checkVersion"));
    EXPECT_EQ(channel->receive(milliseconds(200)), std::nullopt);
    EXPECT_EQ(daemon.stop(), 0);
}

TEST_F(PlugInFailures, AChildThatCallsExitDoesNotTakeTheQueuesAway)
{
    lookForNoLeaks();
    install("doUpdate_decryption.effect=child-exits\n");
    startDaemon();

    EXPECT_EQ(update(), MQ_RESULT_DONE);

    EXPECT_NO_THROW(Channel()) << "a client that comes now";
    EXPECT_EQ(estimate().result, MQ_RESULT_ACCEPTED);
    EXPECT_EQ(daemon.stop(), 0);
}

TEST_F(PlugInFailures, AChildThatComesOutOfAnEntryIsNoSecondService)
{
    for (const std::string effect : {"child-returns", "child-throws"}) {
        install("checkVersion.effect=" + effect + "\n");
        if (!daemon.isRunning()) {
            startDaemon();
        }

        EXPECT_EQ(estimate().result, MQ_RESULT_ACCEPTED) << effect;
        EXPECT_EQ(services(), 1) << effect;
    }
    EXPECT_EQ(linesOf("/tmp/quillon-test-alpha.log", "alpha.child(127)").size(), 2U);
    EXPECT_EQ(daemon.stop(), 0);
}

TEST_F(PlugInFailures, APositiveResultOfTheLastModuleCountsAsDone)
{
    install("doUpdate_decryption.result=7\n");
    startDaemon();
    EXPECT_EQ(update(), MQ_RESULT_DONE);
    EXPECT_EQ(daemon.logLinesWith("Error: alpha Firmware doUpdate Fail 7 (").size(), 1U);
}

TEST_F(PlugInFailures, AModuleThatNeedsNoTimeIsUpdatedAtZeroPercent)
{
    install("seconds=0\ndoUpdate_decryption.delay_ms=300\n");
    startDaemon();
    ASSERT_EQ(start(), MQ_RESULT_ACCEPTED);
    const auto reply = channel->ask(MQ_COMMAND_PROGRESS);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->result, MQ_RESULT_RUNNING);
    EXPECT_EQ(reply->value, 0);
    EXPECT_EQ(waitForRun().result, MQ_RESULT_DONE);
}

TEST_F(PlugInFailures, AMissingModuleLibraryDoesNotKeepTheOthersFromBeingUpdated)
{
    install("");
    writeFile(std::string(kModules) + "broken.so", "no library at all");
    startDaemon();
    EXPECT_EQ(daemon.logLinesWith("Error: dlsym libfile: /usr/fwupdate/controls/broken.so").size(),
              1U);
    EXPECT_EQ(update(), MQ_RESULT_DONE);
}

TEST_F(PlugInFailures, AnExtModuleIsNotEvenLoaded)
{
    install("");
    installTestModule("EXT-beta", "");
    startDaemon();
    EXPECT_EQ(daemon.logLinesWith("En/Decryption Service EXT skip [EXT-beta]").size(), 1U);
    expectTexts(linesOf("/tmp/quillon-test-EXT-beta.log", ""), {});
}

TEST_F(PlugInFailures, AStopDuringAnUpdateWaitsForItsEnd)
{
    install("doUpdate_decryption.delay_ms=700\ncapture=/var/lib/quillon/alpha.payload\n");
    startDaemon();
    ASSERT_EQ(start(), MQ_RESULT_ACCEPTED);
    ASSERT_TRUE(channel->send(Channel::record(MQ_COMMAND_STOP)));
    EXPECT_EQ(daemon.stop(), 0);
    EXPECT_EQ(readAll("/var/lib/quillon/alpha.payload"), "payload");
    EXPECT_EQ(daemon.logLinesWith("[ alpha update succeeded ]").size(), 1U);
}

}  // namespace
}  // namespace quillon::test
