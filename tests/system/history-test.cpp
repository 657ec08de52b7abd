// What is known of an update afterwards, with the daemon and its history.

#include <sys/stat.h>

#include <filesystem>

#include "support/files.h"
#include "support/texts.h"
#include "system/system-test.h"
#include "unit/tools/ctl-program.h"

namespace quillon::test {
namespace {

namespace fs = std::filesystem;

const std::string kHistoryFile = "/var/lib/quillon/history/history.jsonl";

class UpdateHistory : public SystemTest
{
protected:
    void SetUp() override
    {
        SystemTest::SetUp();
        fs::create_directories("/run/quillon/run");
        fs::create_directories("/var/lib/quillon/history");
        putImagesForAll("2.0");
    }

    static std::string history()
    {
        const CtlResult result = runCtl({"history"});
        EXPECT_EQ(result.exitCode, 0) << result.err;
        return result.out;
    }

    /// Starts an update in which each module flashes for minutes.
    void updateForMinutes()
    {
        for (const std::string& name : allModules()) {
            setModule(name, 1, 5);
        }
        startDaemon();
        ASSERT_EQ(start(), MQ_RESULT_ACCEPTED);
        ASSERT_TRUE(eventually(
            [] { return readAll(kHistoryFile).find("\"started\"") != std::string::npos; },
            std::chrono::seconds(60)));
    }

    void updateAtOnce()
    {
        for (const std::string& name : allModules()) {
            setModule(name, 0, 5);
        }
        startDaemon();
        EXPECT_EQ(update(), MQ_RESULT_DONE);
    }

    static constexpr const char* kAllUpdated =
        "*  2.0      5 s       * s*  updated\n*  2.0      5 s       * s*  updated\n"
        "*  2.0      5 s       * s*  updated\n";
};

TEST_F(UpdateHistory, HoldsAnUpdateForLongerThanTheServiceLives)
{
    updateAtOnce();
    daemon.kill();
    fs::remove_all("/run/quillon/run");

    expectText(history(), like("WHEN*MODULE*RESULT\n" + std::string(kAllUpdated)));
}

TEST_F(UpdateHistory, NamesTheModuleInWhichTheServiceWasKilled)
{
    updateForMinutes();
    expectText(history(), like("*\n*  2.0      5 s       -  *  running\n"));

    daemon.kill();
    expectText(history(), like("*\n*  2.0      5 s       -  *  cut off\n"));

    channel.reset();
    updateAtOnce();
    expectText(history(), like("*  cut off\n" + std::string(kAllUpdated)));
}

TEST_F(UpdateHistory, ThatCannotBeWrittenFailsNoUpdate)
{
    fs::create_symlink("/dev/full", kHistoryFile);
    updateAtOnce();
    EXPECT_TRUE(fs::is_symlink(kHistoryFile));
}

TEST_F(UpdateHistory, IsNotKeptWithoutItsDirectory)
{
    fs::remove_all("/var/lib/quillon/history");
    updateAtOnce();
    EXPECT_FALSE(fs::exists("/var/lib/quillon/history"));
    expectText(history(), like("No update is recorded: *"));
}

}  // namespace
}  // namespace quillon::test
