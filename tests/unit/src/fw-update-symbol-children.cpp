// Children that a plug-in or the verifier forks and lets come out of its entry.

#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <tuple>

#include "fw-update-symbol.h"
#include "support/device-fixture.h"

namespace quillon::test {
namespace {

using namespace fakes;
using ::testing::Combine;
using ::testing::Values;

/// Calls something that a child must not come out of. A child that does ends here, since it would
/// go on with the other tests.
void callAsOne(const std::function<void()>& call)
{
    const pid_t self = getpid();
    try {
        call();
    } catch (const std::runtime_error&) {
    }
    if (getpid() != self) {
        _exit(1);
    }
}

struct Entry
{
    const char* name;
    std::function<void(FWUpdateSymbol& module)> call;
};

int g_number = 0;
unsigned int g_progress = 0;
char g_text[FW_PLUGIN_TEXT_SIZE] = {};

const Entry kEntries[] = {
    {"setContext", [](auto& module) { module.setContext(CALLER_STICK, g_text); }},
    {"getEMPID",
     [](auto& module) {
         std::string out;
         module.getEMPID(out);
     }},
    {"getActiveVersion", [](auto& module) { module.getActiveVersion(g_text); }},
    {"checkVersion", [](auto& module) { module.checkVersion("2.0", &g_number); }},
    {"doUpdate", [](auto& module) { module.doUpdate("/image", 1, 0); }},
    {"allUpdateDone", [](auto& module) { module.allUpdateDone(); }},
    {"doUpdate_decryption", [](auto& module) { module.doUpdate_decryption(nullptr, 0); }},
    {"getExpectedTime", [](auto& module) { module.getExpectedTime(&g_number); }},
    {"getUpdateProgress", [](auto& module) { module.getUpdateProgress(&g_progress); }},
};

class PluginChildren : public DeviceTest,
                       public testing::WithParamInterface<std::tuple<Entry, Effect>>
{
};

TEST_P(PluginChildren, EndWhereTheyComeOutOfAnEntry)
{
    const auto& [entry, effect] = GetParam();
    device.addModule("alpha", Module());
    FWUpdateSymbol module("alpha");
    ASSERT_EQ(module.loadSymbol("alpha"), 0);
    device.changeModule("alpha", Module().with(entry.name, effect));

    callAsOne([&, &call = entry.call] { call(module); });

    expectTextAmong(pluginTexts(), "alpha.child(127)");
}

INSTANTIATE_TEST_SUITE_P(OfEachEntry, PluginChildren,
                         Combine(testing::ValuesIn(kEntries),
                                 Values(Effect::ChildReturns, Effect::ChildThrows)),
                         [](const auto& test) {
                             const bool throws = std::get<1>(test.param) == Effect::ChildThrows;
                             return std::get<0>(test.param).name +
                                    std::string(throws ? "Throwing" : "Returning");
                         });

using VerifierChildren = DeviceTest;

TEST_F(VerifierChildren, EndWhereTheyComeOutOfIt)
{
    device.addVerifier();
    int status = -1;
    platform().verifyFile.always([&](const char* /*path*/) {
        const pid_t child = fork();
        if (child != 0) {
            waitpid(child, &status, 0);
        }
        return 1;
    });

    callAsOne([] { uep_verify("/image"); });

    EXPECT_EQ(WEXITSTATUS(status), 127);
}

using PluginChildrenOfLoading = DeviceTest;

TEST_F(PluginChildrenOfLoading, EndWhereTheyComeOutOfIt)
{
    device.addModule("alpha", Module().forkingAtLoad());

    callAsOne([] { FWUpdateSymbol("alpha").loadSymbol("alpha"); });

    expectTexts(pluginTexts(), {"alpha.child(127)", "alpha.setContext(\"alpha\", 2, \"\")",
                                "alpha.getEMPID()", "alpha.child(127)"});
}

}  // namespace
}  // namespace quillon::test
