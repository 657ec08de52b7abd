// Running a process module, which has no image.

#include <pthread.h>

#include <cerrno>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "offered-firmware.h"
#include "support/wait.h"

namespace quillon::test {
namespace {

using namespace fakes;

class ProcessModule : public OfferedFirmware
{
protected:
    int installProcess(const Module& description)
    {
        device.addModule("EXT-tool", description);
        const int result = process.loadSymbol("EXT-tool");
        clear();
        return result;
    }

    int run() { return process.runProcess(CALLER_SERVICE, argument); }

    static Step said(const std::string& text) { return LogFrom("runProcess", ERROR, text); }

    FWUpdateSymbol process{"EXT-tool"};

    const Step tried = said(" Firmware runProcess Try");
    const Step contextSet = Plugin("EXT-tool.setContext(\"EXT-tool\", 2, \"argument\")");
    const Step updated = Plugin("EXT-tool.doUpdate(\"EXT-tool\", 0)");
};

TEST_F(ProcessModule, RunsItsUpdateWithTheLibrarysName)
{
    ASSERT_EQ(installProcess(Module()), 0);
    ASSERT_EQ(process.getSymbolType(), 1);
    recordCalls({"prctl", "stat", "access", "fopen64", "fread"});

    EXPECT_EQ(run(), 0);

    expectSteps({tried, Call("prctl(PR_SET_NAME, \"\") = 0"), contextSet, updated});
}

TEST_F(ProcessModule, TakesTheFirmwaresNameForTheThreadAndTheLibrarysForTheUpdate)
{
    install(Module());
    recordCalls({"prctl"});

    EXPECT_EQ(module.runProcess(CALLER_SHARED, argument), 0);

    expectSteps({said("tunerA1 Firmware runProcess Try"),
                 Call("prctl(PR_SET_NAME, \"tunerA1\") = 0"), OfferedFirmware::contextSet(5),
                 plugin("doUpdate(\"tuner\", 0)")});
}

TEST_F(ProcessModule, NamesTheCallingThreadAndNoOther)
{
    install(Module());
    char own[16] = {};
    ASSERT_EQ(pthread_getname_np(pthread_self(), own, sizeof(own)), 0);
    char named[16] = {};
    std::thread([&] {
        EXPECT_EQ(module.runProcess(CALLER_SERVICE, argument), 0);
        pthread_getname_np(pthread_self(), named, sizeof(named));
    }).join();

    EXPECT_STREQ(named, "tunerA1");
    pthread_getname_np(pthread_self(), named, sizeof(named));
    EXPECT_STREQ(named, own);
}

TEST_F(ProcessModule, SaysNothingWhenItsContextIsRefused)
{
    installProcess(Module());
    device.changeModule("EXT-tool", Module().returning("setContext", 1));

    EXPECT_EQ(run(), -1);

    expectSteps({tried, contextSet});
}

TEST_F(ProcessModule, FailsWithItsOwnCodeReplacedAndErrnoTold)
{
    installProcess(Module());
    for (const int code : {1, 7, -3}) {
        device.changeModule("EXT-tool", Module().returning("doUpdate", code, ENOSPC));
        clear();

        EXPECT_EQ(run(), -1);

        expectSteps({tried, contextSet, updated,
                     said("Error: EXT-tool runProcess Fail (28:No space "
                          "left on device)")});
    }
}

TEST_F(ProcessModule, AFailureNamesTheLibraryAndNotTheFirmware)
{
    install(Module().returning("doUpdate", 1, EIO));

    EXPECT_EQ(module.runProcess(CALLER_SERVICE, argument), -1);

    expectLastSteps({said("Error: tuner runProcess Fail (5:Input/output error)")});
}

TEST_F(ProcessModule, NeitherMountsNorChecksForAnyCaller)
{
    offerPackage();
    installProcess(Module().upToDate().returning("checkVersion", -1));
    for (int caller = -1; caller <= 8; ++caller) {
        clear();

        EXPECT_EQ(process.runProcess(static_cast<CallerTypes>(caller), nullptr), 0);

        expectSteps(
            {tried,
             Plugin("EXT-tool.setContext(\"EXT-tool\", " + std::to_string(caller) + ", null)"),
             updated});
    }
    EXPECT_TRUE(isThere(kPackage));
}

TEST_F(ProcessModule, LeavesTheDecisionAlone)
{
    offer(kSystemDirectory);
    install(Module().needsUpdate());
    ASSERT_EQ(module.isNeedUpdate(CALLER_SYSTEM, argument), 1);
    change(Module().upToDate().takesSeconds(1));

    EXPECT_EQ(module.runProcess(CALLER_SYSTEM, argument), 0);

    EXPECT_TRUE(module.getNeedUpdate());
    EXPECT_EQ(module.getExpectedUpdateTime(), 90);
}

TEST_F(ProcessModule, AMissingEntryRaises)
{
    EXPECT_THROW(run(), std::bad_function_call);
    expectSteps({tried});

    ASSERT_EQ(installProcess(Module().lacking("doUpdate")), -1);
    EXPECT_THROW(run(), std::bad_function_call);

    expectSteps({tried, contextSet});
}

TEST_F(ProcessModule, AnExceptionOutOfThePluginLetsTheNextOneRun)
{
    installProcess(Module());
    const std::vector<std::string> entries = {"setContext", "doUpdate"};
    for (const std::string& entry : entries) {
        device.changeModule("EXT-tool", Module().throwing(entry));

        EXPECT_THROW(run(), std::runtime_error) << entry;
    }
    device.changeModule("EXT-tool", Module());

    EXPECT_EQ(run(), 0);
}

TEST_F(ProcessModule, WaitsWhileAnotherIsRunning)
{
    installProcess(Module());
    install(Module().onUpdate([this](const char*, unsigned long) {
        // The other one has come as far as it can: the name is given before the wait.
        EXPECT_TRUE(waitForText("prctl(PR_SET_NAME, \"\") = 0", kPatience));
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        note("the first one returns");
    }));
    recordCalls({"prctl"});

    std::thread first([this] { EXPECT_EQ(module.runProcess(CALLER_SERVICE, argument), 0); });
    EXPECT_TRUE(waitForText("tuner.doUpdate(\"tuner\", 0)", kPatience));
    EXPECT_EQ(run(), 0);
    first.join();

    expectLastSteps({plugin("doUpdate(\"tuner\", 0)"), tried, Call("prctl(PR_SET_NAME, \"\") = 0"),
                     Call("the first one returns"), contextSet, updated});
}

TEST_F(ProcessModule, RunsWhileAFirmwareIsBeingInstalled)
{
    offer(kSystemDirectory);
    bool overlapped = false;
    install(Module().needsUpdate().onUpdate([&overlapped](const char*, unsigned long) {
        overlapped = waitForText("EXT-tool.doUpdate(\"EXT-tool\", 0)", kPatience);
    }));
    installProcess(Module());

    std::thread installing([this] { EXPECT_EQ(update(CALLER_SYSTEM, argument), 0); });
    EXPECT_TRUE(waitForText("========== [ tunerA1 update start ] ==========", kPatience));
    EXPECT_EQ(run(), 0);
    installing.join();

    EXPECT_TRUE(overlapped);
}

}  // namespace
}  // namespace quillon::test
