// What quillonctl tells a user of each module, with the daemon and its records.

#include <filesystem>

#include "support/texts.h"
#include "system/system-test.h"
#include "unit/tools/ctl-program.h"
#include "unit/verifier/test-keys.h"

namespace quillon::test {
namespace {

namespace fs = std::filesystem;

/// The example modules tuner, panel and camera, each with an image of version 2.0.
class ExplainedUpdate : public SystemTest
{
protected:
    void SetUp() override
    {
        SystemTest::SetUp();
        fs::create_directories("/run/quillon/run");
        putImagesForAll("2.0");
    }

    static CtlResult check() { return runCtl({"check", kStick}); }
    static CtlResult update() { return runCtl({"update", kStick}); }

    static void leaveOnly(const std::string& name, const std::string& settings)
    {
        for (const std::string& module : allModules()) {
            removeModule(module);
        }
        installTestModule(name, "need=1\nseconds=5\n" + settings);
        putImage(name, "2.0", "payload");
    }
};

TEST_F(ExplainedUpdate, TellsWhichModulesWereUpdated)
{
    startDaemon();

    const CtlResult result = update();

    EXPECT_EQ(result.exitCode, 0);
    expectText(result.out, like("*\ntuner   1.0      2.0      needs an update, about 5 s\n*"));
    expectText(result.out, like("*BEFORE  AFTER  OFFERED  OUTCOME\n*\ntuner   1.0     2.0    2.0   "
                                "   updated in * s\n*"));

    EXPECT_EQ(update().exitCode, 0) << "there is nothing left to do";
    expectText(check().out, like("*\ntuner   2.0      2.0      up to date\n*Nothing to update\n"));
}

TEST_F(ExplainedUpdate, TellsOfEachImageWhyItIsRefused)
{
    fs::remove(imagePath("tuner"));
    fs::resize_file(imagePath("panel"), 600);
    putImage("camera", "2.0", "payload", "b");
    startDaemon();

    const CtlResult result = check();

    EXPECT_EQ(result.exitCode, 7);
    expectText(result.out, like("*\ntuner   1.0      -        its image is missing\n*"));
    for (const char* name : {"panel ", "camera"}) {
        expectText(result.out, like("*\n" + std::string(name) +
                                    "  1.0      -        its image is not signed, or*"));
    }
}

TEST_F(ExplainedUpdate, TellsThatTheImageKeyIsAnotherOne)
{
    leaveOnly("alpha", "checkVersion.result=-1\n");
    storeKey("b");
    startDaemon();

    expectText(check().out, like("*\nalpha  1.0      -        its image has another image key*"));
}

TEST_F(ExplainedUpdate, NamesTheModuleThatFailedWhateverItsCode)
{
    const std::map<std::string, std::string> texts = {{"-1", "its plug-in could not update it"},
                                                      {"5", "the module's own code is 5"}};
    for (const auto& [code, text] : texts) {
        leaveOnly("alpha", "doUpdate_decryption.result=" + code + "\n");
        daemon.startAndWait();

        const CtlResult result = update();

        EXPECT_EQ(result.exitCode, 6);
        expectText(result.err, like("quillonctl: the update failed at the module alpha: " + text +
                                    "; the update service's log (*) says more\n*"));
        daemon.kill();
    }
}

TEST_F(ExplainedUpdate, NamesTheModuleThatRaised)
{
    leaveOnly("alpha", "doUpdate_decryption.effect=throw\n");
    startDaemon();

    expectText(update().err,
               like("*the update failed at the module alpha: an exception was raised;*"));
}

TEST_F(ExplainedUpdate, NamesTheModuleThatTookTheServiceDown)
{
    for (const char* entry : {"checkVersion", "doUpdate_decryption"}) {
        leaveOnly("alpha", entry + std::string(".effect=crash\n"));
        daemon.startAndWait();

        const CtlResult result = update();

        EXPECT_EQ(result.exitCode, 9) << entry;
        expectText(result.err, like("*; the service was at the module alpha\n*"));
        daemon.waitForEnd(kLongestUpdate);
    }
}

}  // namespace
}  // namespace quillon::test
