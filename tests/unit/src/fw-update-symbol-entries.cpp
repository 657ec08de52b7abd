// The wrappers through which everything else calls a plug-in.

#include <functional>
#include <string>

#include "fw-update-symbol.h"
#include "support/device-fixture.h"

namespace quillon::test {
namespace {

using namespace fakes;

class PluginEntries : public DeviceTest
{
protected:
    void load(const Module& description)
    {
        device.addModule("alpha", description);
        module.loadSymbol("alpha");
        clear();
    }

    FWUpdateSymbol module{"alpha"};
    char argument[8] = "USB";
    char text[FW_PLUGIN_TEXT_SIZE] = {};
    int number = 0;
};

TEST_F(PluginEntries, OfARecordThatWasNeverLoadedRaiseOrRefuse)
{
    std::string identifier;
    EXPECT_THROW(module.setContext(CALLER_STICK, argument), std::bad_function_call);
    EXPECT_THROW(module.getActiveVersion(text), std::bad_function_call);
    EXPECT_THROW(module.checkVersion("2.0", &number), std::bad_function_call);
    EXPECT_THROW(module.doUpdate("path", 0, 0), std::bad_function_call);
    EXPECT_THROW(module.getEMPID(identifier), std::bad_function_call);

    unsigned int progress = 0;
    EXPECT_EQ(module.allUpdateDone(), -1);
    EXPECT_EQ(module.doUpdate_decryption(nullptr, 0), -1);
    EXPECT_EQ(module.getExpectedTime(&number), -1);
    EXPECT_EQ(module.getUpdateProgress(&progress), -1);
}

TEST_F(PluginEntries, ThatAreOptionalAndMissingAnswerMinusOne)
{
    load(Module().lacking("optional"));

    unsigned int progress = 0;
    EXPECT_EQ(module.allUpdateDone(), -1);
    EXPECT_EQ(module.doUpdate_decryption(nullptr, 0), -1);
    EXPECT_EQ(module.getExpectedTime(&number), -1);
    EXPECT_EQ(module.getUpdateProgress(&progress), -1);
    expectSteps({});
}

TEST_F(PluginEntries, SetContextHandsOverTheLibraryNameTheCallerAndTheArgument)
{
    load(Module().returning("setContext", 5));

    EXPECT_EQ(module.setContext(CALLER_ARGUMENT, argument), 5);
    EXPECT_EQ(module.setContext(CALLER_SYSTEM_3, nullptr), 5);

    expectSteps({Plugin("alpha.setContext(\"alpha\", 1, \"USB\")"),
                 Plugin("alpha.setContext(\"alpha\", 7, null)")});
}

TEST_F(PluginEntries, GetActiveVersionSetsTheServicesOwnContextFirst)
{
    load(Module().running("1.7").returning("getActiveVersion", 3).returning("setContext", -1));
    module.setContext(CALLER_STICK, argument);

    EXPECT_EQ(module.getActiveVersion(text), 3);

    EXPECT_STREQ(text, "1.7");
    expectSteps({Plugin("alpha.setContext(\"alpha\", 0, \"USB\")"),
                 Plugin("alpha.setContext(\"alpha\", 2, \"\")"),
                 Plugin("alpha.getActiveVersion()")});
}

TEST_F(PluginEntries, CheckVersionHandsOverTheTextAndBringsTheAnswerBack)
{
    load(Module().needs(4).returning("checkVersion", 6));

    number = 17;
    EXPECT_EQ(module.checkVersion("3.1", &number), 6);

    EXPECT_EQ(number, 4);
    expectSteps({Plugin("alpha.checkVersion(\"3.1\", need 17)")});
}

TEST_F(PluginEntries, DoUpdateHandsOverPathAndValueWhateverTheExtraArgument)
{
    load(Module().returning("doUpdate", -8));

    EXPECT_EQ(module.doUpdate("/image", 0xFFFFFFFFUL, 0), -8);
    EXPECT_EQ(module.doUpdate("/image", 1, 0xFFFFFFFFU), -8);

    expectSteps({Plugin("alpha.doUpdate(\"/image\", 4294967295)"),
                 Plugin("alpha.doUpdate(\"/image\", 1)")});
}

TEST_F(PluginEntries, AllUpdateDoneBringsTheResultBack)
{
    load(Module().returning("allUpdateDone", 9));

    EXPECT_EQ(module.allUpdateDone(), 9);

    expectSteps({Plugin("alpha.allUpdateDone()")});
}

TEST_F(PluginEntries, DoUpdateDecryptionHandsOverTheBytesAndBringsTheResultBack)
{
    load(Module().returning("doUpdate_decryption", 12));
    const Bytes bytes = noise(100);

    EXPECT_EQ(module.doUpdate_decryption(bytes.data(), 100), 12);

    EXPECT_EQ(payloadsOf("alpha"), std::vector<Bytes>{bytes});
    expectSteps({Plugin("alpha.doUpdate_decryption(100 bytes)")});
}

TEST_F(PluginEntries, GetExpectedTimeBringsSecondsAndResultBack)
{
    load(Module().takesSeconds(-5).returning("getExpectedTime", 2));

    EXPECT_EQ(module.getExpectedTime(&number), 2);

    EXPECT_EQ(number, -5);
}

TEST_F(PluginEntries, GetUpdateProgressBringsProgressAndResultBack)
{
    load(Module().atProgress(55).returning("getUpdateProgress", 1));

    unsigned int progress = 0;
    EXPECT_EQ(module.getUpdateProgress(&progress), 1);

    EXPECT_EQ(progress, 55U);
}

TEST_F(PluginEntries, AModuleThatFailedToLoadIsAskedForProgressButNotForTimeOrUpdate)
{
    load(Module().withEmpid("tunerEMP").atProgress(7));

    unsigned int progress = 0;
    EXPECT_EQ(module.getUpdateProgress(&progress), 0);
    EXPECT_EQ(module.allUpdateDone(), 0);
    EXPECT_EQ(module.getExpectedTime(&number), -1);
    EXPECT_EQ(module.doUpdate_decryption(nullptr, 0), -1);

    EXPECT_EQ(progress, 7U);
    expectTexts(pluginTexts(), {"alpha.getUpdateProgress()", "alpha.allUpdateDone()"});
}

TEST_F(PluginEntries, AnExceptionOutOfAPluginReachesTheCaller)
{
    load(Module().throwing("checkVersion"));

    EXPECT_THROW(module.checkVersion("2.0", &number), std::runtime_error);
}

}  // namespace
}  // namespace quillon::test
