// What is known afterwards of an update by a control layer.

#include <signal.h>
#include <sys/stat.h>

#include <filesystem>

#include "support/files.h"
#include "support/texts.h"
#include "system/control-layer.h"
#include "unit/tools/ctl-program.h"

namespace quillon::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kHistories = "/var/lib/quillon/history/";

class LayerHistory : public ControlLayer
{
protected:
    LayerHistory()
    {
        fs::create_directories("/run/quillon/run");
        fs::create_directories(kHistories);
    }

    static std::vector<std::string> updateOf(const std::string& module)
    {
        return {"modules", "update", module, "--source", "system"};
    }

    static std::string history() { return runCtl({"history"}).out; }
};

TEST_F(LayerHistory, HoldsAnUpdateAndWhyOneHasFailed)
{
    install("alpha", "need=1\n");
    offer("alpha", 60);
    install("beta", "need=1\ndoUpdate.result=9\n");
    offer("beta", 60);

    EXPECT_EQ(runCtl({"modules", "update", "--all", "--source", "system"}).exitCode, 6);

    const std::string told = history();
    expectText(told, like("*alpha*  2.0      60 s      * s*  updated\n*"));
    expectText(told,
               like("*beta*  2.0      60 s      * s*  failed: the module's own code is 9\n*"));
}

TEST_F(LayerHistory, NamesTheModuleInWhichItWasKilled)
{
    installWaiting("alpha");
    BackgroundLayer update(updateOf("alpha"));
    ASSERT_TRUE(isFlashing("alpha"));
    expectText(history(), like("*\n*  alpha   2.0      60 s      -     running\n"));

    update.send(SIGKILL);
    EXPECT_EQ(update.wait(), -SIGKILL);

    expectText(history(), like("*\n*  alpha   2.0      60 s      -     cut off\n"));
    fs::remove_all("/run/quillon/run");
    expectText(history(), like("*\n*  alpha   *  cut off\n"));
}

TEST_F(LayerHistory, HoldsTheEndOfAnUpdateWhoseProgressNobodyReads)
{
    install("alpha", "need=1\n");
    offer("alpha", 60);

    const UnreadCtl unread(updateOf("alpha"));

    EXPECT_TRUE(eventually([] { return like("*alpha*updated\n").accepts(history()); }))
        << history();
    expectNoText(history(), like("*running*"));
    EXPECT_TRUE(unread.isAlive());
}

TEST_F(LayerHistory, HoldsTwoUpdatesThatTakeTurns)
{
    installWaiting("alpha");
    install("beta", "need=1\n");
    offer("beta", 60);
    BackgroundLayer first(updateOf("alpha"));
    ASSERT_TRUE(isFlashing("alpha"));
    BackgroundLayer second(updateOf("beta"));
    ASSERT_TRUE(second.says("Waiting for another update"));

    goOn();

    EXPECT_EQ(first.wait(), 0);
    EXPECT_EQ(second.wait(), 0);
    const std::string told = history();
    expectText(told, like("*alpha*updated\n*"));
    expectText(told, like("*beta*updated\n*"));
}

TEST_F(LayerHistory, DoesNotHoldWhatAStrangerUpdates)
{
    constexpr uid_t kStranger = 65534;
    if (!canRunCtlAs(kStranger)) {
        GTEST_SKIP() << "there is only one user here";
    }
    install("alpha", "need=1\n");
    offer("alpha", 60);

    static_cast<void>(runCtl(updateOf("alpha"), kStranger));

    EXPECT_FALSE(fs::exists(std::string(kHistories) + "modules"));
}

TEST_F(LayerHistory, PassesOverWhatNoControlLayerLeaves)
{
    install("alpha", "need=1\n");
    offer("alpha", 60);
    ASSERT_EQ(runCtl(updateOf("alpha")).exitCode, 0);
    const std::string before = history();
    const std::string modules = kHistories + std::string("modules/");
    const std::string began =
        R"({"at":9000000000,"clock":1,"directory":"x","event":"began","service":1})"
        "\n";
    for (const char* name : {"8000000001-1", "8000000002-2"}) {
        fs::create_directories(modules + name);
    }
    ASSERT_EQ(::mkfifo((modules + "8000000001-1/history.jsonl").c_str(), 0666), 0);
    writeFile(modules + "8000000002-2/history.jsonl", began + std::string(3U << 20U, '\n'));

    EXPECT_EQ(history(), before);
    EXPECT_EQ(runCtl({"history"}).err,
              "quillonctl: warning: 2 histories of control layers cannot be read and are left "
              "out\n");
    writeFile(modules + "8000000002-2/history.jsonl", began);
    EXPECT_NE(history(), before);
}

TEST_F(LayerHistory, IsForTheGroupWhateverTheMaskOfWhoUpdates)
{
    install("alpha", "need=1\n");
    offer("alpha", 60);
    const mode_t before = ::umask(077);
    ASSERT_EQ(runCtl(updateOf("alpha")).exitCode, 0);
    ::umask(before);

    for (const auto& entry : fs::recursive_directory_iterator(kHistories)) {
        const fs::perms needed = fs::perms::group_read;
        EXPECT_EQ(entry.status().permissions() & needed, needed) << entry.path();
    }
}

TEST_F(LayerHistory, ThatCannotBeWrittenFailsNoUpdate)
{
    install("alpha", "need=1\n");
    offer("alpha", 60);
    writeFile(std::string(kHistories) + "modules", "in the way");

    EXPECT_EQ(runCtl(updateOf("alpha")).exitCode, 0);

    EXPECT_EQ(history(), "No update is recorded\n");
}

}  // namespace
}  // namespace quillon::test
