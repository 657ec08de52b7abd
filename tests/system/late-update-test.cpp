// An update is followed by the thread on which it runs, whatever the module does to the process.

#include <signal.h>

#include <filesystem>
#include <fstream>

#include "support/texts.h"
#include "system/control-layer.h"

namespace quillon::test {
namespace {

const std::vector<std::string> kUpdateAlpha = {"modules", "update", "alpha", "--source", "system"};

class LateUpdate : public ControlLayer
{
protected:
    static void isWaitedFor(const std::string& what)
    {
        installGuided("alpha", what + "-in-doUpdate wait-in-doUpdate");
        offer("alpha", 1);
        BackgroundLayer layer(kUpdateAlpha);

        EXPECT_TRUE(layer.says("The time of alpha is over, but it is still being updated"))
            << layer.output();
        goOn();
        EXPECT_EQ(layer.wait(), 13);
        expectText(layer.output(), like("*timed out*"));
    }
};

TEST_F(LateUpdate, IsWaitedForThoughTheModuleHasNamedItsThread)
{
    isWaitedFor("rename");
}

TEST_F(LateUpdate, IsWaitedForThoughNoFileCanBeOpened)
{
    if (QUILLON_SANITIZED) {
        GTEST_SKIP() << "a sanitizer opens files of its own";
    }
    isWaitedFor("nofile");
}

TEST_F(LateUpdate, CannotBeInterruptedThoughItsThreadHasNotStartedYet)
{
    installGuided("alpha", "load-in-checkVersion");
    offer("alpha", 4294967294);  // the registry allows it no time
    std::ofstream("/etc/quillon-test/slow.conf") << "wait-in-load";
    std::filesystem::copy_file(GUIDED_MODULE, "/var/tmp/slow.so");
    BackgroundLayer layer(kUpdateAlpha);
    ASSERT_TRUE(layer.says("The time of alpha is over, but it is still being updated"))
        << layer.output();

    layer.send(SIGINT);

    EXPECT_EQ(layer.wait(), 13) << layer.output();
}

/// @param  how the plug-in does not tell how far it is
class LateUpdateOfASilentPlugIn : public LateUpdate, public testing::WithParamInterface<const char*>
{
};

TEST_P(LateUpdateOfASilentPlugIn, IsNone)
{
    installGuided("alpha", std::string(GetParam()) + "-in-getUpdateProgress wait-in-doUpdate");
    BackgroundLayer layer({"--json", "modules", "update", "alpha", "--source", "system"});
    ASSERT_TRUE(eventually([] { return wasAsked("alpha", "getUpdateProgress("); }));

    goOn();

    EXPECT_EQ(layer.wait(), 0);
    expectText(layer.output(), like(R"(*"outcome":"updated"*)"));
    EXPECT_TRUE(wasAsked("alpha", "allUpdateDone("));
}

INSTANTIATE_TEST_SUITE_P(Way, LateUpdateOfASilentPlugIn, testing::Values("hang", "end-thread"));

TEST_F(LateUpdate, IsNoneWhenOnlyAThreadGoesOnThatTheModuleHasStarted)
{
    installGuided("alpha", "thread-in-doUpdate");

    EXPECT_EQ(of("alpha", json({"update", "alpha", "--source", "system"}))["outcome"], "updated");
}

}  // namespace
}  // namespace quillon::test
