// A module whose static initialization raises an exception.

#include "system/control-layer.h"

namespace quillon::test {
namespace {

class BrokenLoading : public ControlLayer
{
protected:
    void SetUp() override
    {
        installGuided("alpha", "throw-in-load");
        installGuided("beta", "");
    }
};

TEST_F(BrokenLoading, IsListedWithTheReasonBesideTheOtherModules)
{
    // The registry's pass over the modules ends there as well.
    installGuided("gamma", "throw-in-setContext");

    const Json::Value list = json({"list"});

    EXPECT_EQ(of("alpha", list)["kind"], "unusable");
    EXPECT_EQ(of("alpha", list)["reason"], "it does not load: an exception was raised: broken");
    EXPECT_EQ(of("beta", list)["kind"], "firmware");
    EXPECT_EQ(of("gamma", list)["reason"], "an exception was raised: broken");
    EXPECT_EQ(of("beta", json({"check", "--source", "system"}))["decision"], "needed");
    EXPECT_EQ(json({"version", "beta"})["version"], "1.0");
    EXPECT_EQ(callsOfModule("alpha"), std::vector<std::string>(2, "load()")) << "list and check";
}

TEST_F(BrokenLoading, KeepsUpdatesFromBeginningAndSaysHowToMendThat)
{
    for (const std::string what : {"beta", "--all"}) {
        EXPECT_EQ(json({"update", what, "--source", "system"}, 11)["text"],
                  "nothing can be updated: the module alpha has raised an exception while it was "
                  "loaded, and no thread could work beside it; move it out of "
                  "/usr/fwupdate/controls/");
    }
    EXPECT_FALSE(wasAsked("beta", "doUpdate("));
    EXPECT_EQ(semaphoreValue(), -1);
}

TEST_F(BrokenLoading, KeepsDownloadsFromBeginning)
{
    EXPECT_EQ(json({"download"}, 11)["text"],
              "nothing can be downloaded: the module alpha has raised an exception while it was "
              "loaded, and no thread could work beside it; move it out of "
              "/usr/fwupdate/controls/");
}

}  // namespace
}  // namespace quillon::test
