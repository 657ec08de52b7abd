// How a module's plug-in library is opened and bound.

#include <unistd.h>

#include <algorithm>
#include <string>

#include "fw-update-symbol.h"
#include "support/device-fixture.h"

namespace quillon::test {
namespace {

using namespace fakes;

class LoadSymbol : public DeviceTest
{
protected:
    // Loads a module under its own name, as the registry does.
    int load(const std::string& name)
    {
        module = FWUpdateSymbol(name);
        return module.loadSymbol(name);
    }

    FWUpdateSymbol module{""};
};

TEST_F(LoadSymbol, ANewRecordHoldsItsLibraryNameAndNothingElse)
{
    const FWUpdateSymbol record("alpha");

    EXPECT_EQ(record.getLibName(), "alpha");
    EXPECT_EQ(record.getEMPName(), "");
    EXPECT_EQ(record.getFirmwareName(), "");
    EXPECT_FALSE(record.getNeedUpdate());
    EXPECT_EQ(record.getExpectedUpdateTime(), 0);
    EXPECT_EQ(record.getSymbolType(), 0);
    EXPECT_EQ(record.getInformation().version, "");
    EXPECT_EQ(record.getInformation().reserved1, "");
    EXPECT_EQ(record.getInformation().reserved2, "");
    EXPECT_EQ(record.getInformation().crc, 0U);
    EXPECT_EQ(record.getInformation().expectedSeconds, 0U);
}

TEST_F(LoadSymbol, AnEmptyNameFailsWithoutAMessage)
{
    recordCalls({"realpath", "dlopen"});

    EXPECT_EQ(load(""), -1);

    expectSteps({});
}

TEST_F(LoadSymbol, AMissingLibraryFailsWithoutAMessage)
{
    recordCalls({"realpath", "dlopen"});

    EXPECT_EQ(load("ghost"), -1);

    expectSteps({Call("realpath(\"/usr/fwupdate/controls/ghost.so\") = null")});
}

TEST_F(LoadSymbol, AMissingLibraryLeavesTheRecordsNameAlone)
{
    FWUpdateSymbol record("alpha");

    EXPECT_EQ(record.loadSymbol("ghost"), -1);

    EXPECT_EQ(record.getLibName(), "alpha");
}

TEST_F(LoadSymbol, OpensTheLibraryTellsItTheContextAndAsksForItsPackage)
{
    device.addModule("alpha", Module().withEmpid("tunerempA1"));
    recordCalls({"realpath", "dlopen", "dlclose"});

    EXPECT_EQ(load("alpha"), 0);

    expectSteps({Call("realpath(\"/usr/fwupdate/controls/alpha.so\") = "
                      "\"/usr/fwupdate/controls/alpha.so\""),
                 Call("dlopen(\"/usr/fwupdate/controls/alpha.so\", RTLD_NOW) = ok"),
                 Plugin("alpha.setContext(\"alpha\", 2, \"\")"), Plugin("alpha.getEMPID()")});
    EXPECT_EQ(module.getEMPName(), "tunerempA1");
    EXPECT_EQ(module.getFirmwareName(), "tunerA1");
    EXPECT_EQ(module.getLibName(), "alpha");
    EXPECT_EQ(module.getSymbolType(), 0);
}

TEST_F(LoadSymbol, TakesTheLibraryNameFromTheCall)
{
    device.addModule("alpha");
    FWUpdateSymbol record("another");

    EXPECT_EQ(record.loadSymbol("alpha"), 0);

    EXPECT_EQ(record.getLibName(), "alpha");
    expectTexts(pluginTexts(), {"alpha.setContext(\"alpha\", 2, \"\")", "alpha.getEMPID()"});
}

TEST_F(LoadSymbol, OpensWhatALinkPointsTo)
{
    device.addModule("alpha1");
    ASSERT_EQ(symlink("alpha1.so", device.modulePath("alpha").c_str()), 0);
    recordCalls({"dlopen"});

    EXPECT_EQ(load("alpha"), 0);

    expectTexts(callTexts(), {"dlopen(\"/usr/fwupdate/controls/alpha1.so\", RTLD_NOW) = ok"});
}

TEST_F(LoadSymbol, AFileThatIsNoLibraryIsReportedByItsUnresolvedPath)
{
    device.addModuleFile("junk-1", bytesOf("no library at all"));
    ASSERT_EQ(symlink("junk-1.so", device.modulePath("junk").c_str()), 0);

    EXPECT_EQ(load("junk"), -1);

    expectSteps({LogFrom("loadSymbol", ERROR,
                         like("Error: dlsym libfile: /usr/fwupdate/controls/junk.so error: "
                              "/usr/fwupdate/controls/junk-1.so*\n"))});
    EXPECT_EQ(module.getLibName(), "junk");
}

class LoadSymbolWithout : public LoadSymbol, public ::testing::WithParamInterface<const char*>
{
};

TEST_P(LoadSymbolWithout, ARequiredEntryFailsTheLoadWithOneErrorLine)
{
    const std::string entry = GetParam();
    device.addModule("alpha", Module().lacking(entry));

    EXPECT_EQ(load("alpha"), -1);

    expectSteps({Log(ERROR,
                     "Error: dlsym error: /usr/fwupdate/controls/alpha.so: "
                     "undefined symbol: " +
                         entry + "\n")});
}

TEST_P(LoadSymbolWithout, ARequiredEntryLeavesTheLibraryOpenUntilTheRecordIsDestroyed)
{
    device.addModule("alpha", Module().lacking(GetParam()));
    recordCalls({"dlopen", "dlclose"});
    {
        FWUpdateSymbol record("alpha");
        EXPECT_EQ(record.loadSymbol("alpha"), -1);
        expectTexts(callTexts(), {"dlopen(\"/usr/fwupdate/controls/alpha.so\", RTLD_NOW) = ok"});
        clear();
    }
    expectTexts(callTexts(), {"dlclose(\"/usr/fwupdate/controls/alpha.so\") = 0"});
}

INSTANTIATE_TEST_SUITE_P(Required, LoadSymbolWithout,
                         ::testing::Values("setContext", "getEMPID", "getActiveVersion",
                                           "checkVersion", "doUpdate"),
                         [](const auto& entry) { return entry.param; });

TEST_F(LoadSymbol, WhatWasBoundBeforeAMissingEntryStaysBound)
{
    device.addModule("alpha", Module().lacking("doUpdate").needsUpdate());
    ASSERT_EQ(load("alpha"), -1);

    int need = 0;
    EXPECT_EQ(module.checkVersion("2.0", &need), 0);
    EXPECT_EQ(need, 1);
    EXPECT_THROW(module.doUpdate("path", 0, 0), std::bad_function_call);
    EXPECT_EQ(module.allUpdateDone(), -1);
}

TEST_F(LoadSymbol, OptionalEntriesMayBeMissingAndAreNotedAtDebugPriority)
{
    device.addModule("alpha", Module().lacking("optional"));

    EXPECT_EQ(load("alpha"), 0);

    const std::string text =
        "Error: dlsym error: /usr/fwupdate/controls/alpha.so: undefined symbol: ";
    expectSteps({Log(DEBUG, text + "allUpdateDone\n"), Log(DEBUG, text + "doUpdate_decryption\n"),
                 Log(DEBUG, text + "getExpectedTime\n"), Log(DEBUG, text + "getUpdateProgress\n"),
                 Plugin("alpha.setContext(\"alpha\", 2, \"\")"), Plugin("alpha.getEMPID()")});
}

TEST_F(LoadSymbol, AnEntryAtTheAddressNullStaysEmpty)
{
    device.addModule("alpha", Module().withNull("checkVersion"));

    EXPECT_EQ(load("alpha"), 0);

    int need = 0;
    EXPECT_THROW(module.checkVersion("2.0", &need), std::bad_function_call);
    expectTexts(logTexts(), {});
}

TEST_F(LoadSymbol, AnOptionalEntryAtTheAddressNullCountsAsMissing)
{
    device.addModule("alpha", Module().withNull("getExpectedTime"));

    EXPECT_EQ(load("alpha"), 0);

    int seconds = 0;
    EXPECT_EQ(module.getExpectedTime(&seconds), -1);
}

TEST_F(LoadSymbol, TheResultOfTheFirstSetContextDoesNotMatter)
{
    device.addModule("alpha", Module().returning("setContext", -1));

    EXPECT_EQ(load("alpha"), 0);
}

class LoadProcessModule : public LoadSymbol, public ::testing::WithParamInterface<const char*>
{
};

TEST_P(LoadProcessModule, IsNotAskedForAPackageAndCountsAsNotLoaded)
{
    const std::string name = GetParam();
    device.addModule(name);

    EXPECT_EQ(load(name), 0);

    expectSteps({Plugin(name + ".setContext(\"" + name + "\", 2, \"\")"),
                 LogFrom("loadSymbol", ERROR, "Not Update Symbol [" + name + "]")});
    EXPECT_EQ(module.getSymbolType(), 1);
    EXPECT_EQ(module.getEMPName(), "");
    EXPECT_EQ(module.getFirmwareName(), "");
    int seconds = 0;
    EXPECT_EQ(module.getExpectedTime(&seconds), -1);
    EXPECT_EQ(module.doUpdate_decryption(nullptr, 0), -1);
    EXPECT_EQ(module.getLibName(), name);
}

INSTANTIATE_TEST_SUITE_P(Names, LoadProcessModule,
                         ::testing::Values("my-ext-tool", "EXT-tool", "tool-Ext-", "eXt-1"),
                         [](const auto& name) {
                             std::string text = name.param;
                             std::replace(text.begin(), text.end(), '-', '_');
                             return text;
                         });

TEST_F(LoadSymbol, ANameWithExtButNoHyphenIsAFirmwareModule)
{
    device.addModule("extra");

    EXPECT_EQ(load("extra"), 0);

    EXPECT_EQ(module.getSymbolType(), 0);
    EXPECT_EQ(module.getFirmwareName(), "extra");
}

TEST_F(LoadSymbol, AnIdentifierWithoutLowerCaseEmpIsWrong)
{
    device.addModule("tuner", Module().withEmpid("tunerEMP"));

    EXPECT_EQ(load("tuner"), -1);

    expectTexts(logTexts(), {"Error: EMPID is Wrong (tunerEMP)"});
    expectLastSteps({LogFrom("loadSymbol", ERROR, like("*Wrong*"))});
    EXPECT_EQ(module.getEMPName(), "tunerEMP");
    EXPECT_EQ(module.getFirmwareName(), "tunerEMP");
    int seconds = 0;
    EXPECT_EQ(module.getExpectedTime(&seconds), -1) << "the module does not count as loaded";
}

TEST_F(LoadSymbol, OnlyTheFirstEmpIsTakenOutOfTheIdentifier)
{
    device.addModule("alpha", Module().withEmpid("empemp"));

    EXPECT_EQ(load("alpha"), 0);

    EXPECT_EQ(module.getFirmwareName(), "emp");
    EXPECT_EQ(module.getEMPName(), "empemp");
}

TEST_F(LoadSymbol, AnEmpFurtherBehindStaysInTheFirmwareName)
{
    device.addModule("alpha", Module().withEmpid("tunerempA1emp2"));

    EXPECT_EQ(load("alpha"), 0);

    EXPECT_EQ(module.getFirmwareName(), "tunerA1emp2");
}

TEST_F(LoadSymbol, AnEmptyIdentifierFailsTheLoad)
{
    device.addModule("alpha", Module().withEmpid(""));

    EXPECT_EQ(load("alpha"), -1);

    expectLastSteps({LogFrom("getEMPID", ERROR, "Error: EMPID is empty.()")});
    EXPECT_EQ(module.getEMPName(), "");
}

TEST_F(LoadSymbol, ARefusedIdentifierLeavesTheNamesEmpty)
{
    device.addModule("alpha", Module().withEmpid("alpha-emp"));

    EXPECT_EQ(load("alpha"), -1);

    expectTexts(logTexts(), {"Error: use EMPID only English and numbers. alpha-emp"});
    EXPECT_EQ(module.getEMPName(), "");
    EXPECT_EQ(module.getFirmwareName(), "");
}

TEST_F(LoadSymbol, AnIdentifierWithoutTerminatorEndsWithItsBuffer)
{
    const std::string text = "emp" + std::string(125, 'a');
    device.addModule("alpha", Module().withEmpid(text));

    EXPECT_EQ(load("alpha"), 0);

    EXPECT_EQ(module.getEMPName(), text);
    EXPECT_EQ(module.getFirmwareName(), std::string(125, 'a'));
}

TEST_F(LoadSymbol, WhatGetEMPIDReturnsDoesNotMatterOnlyItsTextDoes)
{
    device.addModule("alpha", Module().returning("getEMPID", -1));

    EXPECT_EQ(load("alpha"), 0);

    EXPECT_EQ(module.getFirmwareName(), "alpha");
}

class Identifier : public LoadSymbol, public ::testing::WithParamInterface<unsigned char>
{
};

TEST_P(Identifier, WithACharacterThatIsNoAsciiLetterOrDigitIsRefused)
{
    const std::string text = "abc" + std::string(1, static_cast<char>(GetParam())) + "emp";
    device.addModule("alpha");
    ASSERT_EQ(load("alpha"), 0);
    device.changeModule("alpha", Module().withEmpid(text));
    clear();

    std::string identifier;
    EXPECT_EQ(module.getEMPID(identifier), -1);

    EXPECT_EQ(identifier, text);
    expectLastSteps({Log(ERROR, "Error: use EMPID only English and numbers. " + text)});
}

// The neighbours of the three ranges, and some that producers like to use.
INSTANTIATE_TEST_SUITE_P(Characters, Identifier,
                         ::testing::Values('/', ':', '@', '[', '`', '{', '-', '_', ' ', '.', '\n',
                                           0x7F, 0x80, 0xE4, 0xFF),
                         [](const auto& code) { return std::to_string(code.param); });

TEST_F(LoadSymbol, AnIdentifierOfLettersAndDigitsIsAccepted)
{
    device.addModule("alpha");
    ASSERT_EQ(load("alpha"), 0);
    for (const char* text : {"abc123XYZ", "0", "9", "a", "z", "A", "Z"}) {
        device.changeModule("alpha", Module().withEmpid(text));
        clear();

        std::string identifier = "left over";
        EXPECT_EQ(module.getEMPID(identifier), 0);

        EXPECT_EQ(identifier, text);
        expectTexts(logTexts(), {});
    }
}

}  // namespace
}  // namespace quillon::test
