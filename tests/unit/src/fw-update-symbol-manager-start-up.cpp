#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <new>

#include "fw-update-symbol-manager-registry.h"

using namespace quillon::fakes;
using namespace quillon::test;

namespace {

Step Skipped(const std::string& stem)
{
    return LogFrom("onCreate", ERROR, "En/Decryption Service EXT skip [" + stem + "]");
}

Step Opened(const std::string& name)
{
    return Call("dlopen(\"/usr/fwupdate/controls/" + name + ".so\", RTLD_NOW) = ok");
}

Step ToldWhoAsks(const std::string& name)
{
    return Plugin(name + ".setContext(\"" + name + "\", 2, \"\")");
}

Step AskedForItsName(const std::string& name)
{
    return Plugin(name + ".getEMPID()");
}

Step AskedForTheVersion()
{
    return Call("system_info_get_value_string(128) = 0");
}

Step Model()
{
    return LogFrom("getSWVersionString", INFO, "SWModel : QUILLON");
}

std::string inModuleDirectory(const std::string& name)
{
    return std::string(kModuleDirectory) + "/" + name;
}

class Registry : public RegistryTest
{
};

}  // namespace

TEST_F(Registry, ExistsOnce)
{
    EXPECT_EQ(FWUpdateSymbolManager::getInstance(), manager);
}

TEST_F(Registry, OfAnEmptyDirectoryIsEmptyAndStands)
{
    EXPECT_TRUE(manager->getIsReady(true));

    expectSteps({AskedForTheVersion(), Model()});
    expectTexts(registered(), {});
}

TEST_F(Registry, LoadsAModuleThenReadsTheVersion)
{
    device.addModule("alpha");
    recordCalls({"dlopen"});

    EXPECT_TRUE(manager->getIsReady(true));

    expectSteps({Opened("alpha"), ToldWhoAsks("alpha"), AskedForItsName("alpha"),
                 AskedForTheVersion(), Model()});
    expectTexts(registered(), {"alpha"});
}

TEST_F(Registry, ListsModulesInTheOrderOfTheDirectory)
{
    for (const char* name : {"mike", "alpha", "zulu", "delta", "yankee", "bravo"}) {
        device.addModule(name);
    }

    ASSERT_TRUE(manager->getIsReady(true));

    EXPECT_EQ(registered(), listedModules());
    EXPECT_EQ(registered().size(), 6U);
}

TEST_F(Registry, LoadsOnlyAfterTheWholeDirectoryHasBeenListed)
{
    // A directory may list its oldest entry last or first: one to be skipped stands at either end.
    device.addModule("ext-first");
    device.addModule("alpha");
    device.addModule("bravo");
    device.addModule("ext-last");
    recordCalls({"dlopen"});

    ASSERT_TRUE(manager->getIsReady(true));

    const std::vector<Entry> all = timeline();
    ASSERT_GE(all.size(), 2U);
    const std::vector<Entry> first(all.begin(), all.begin() + 2);
    expectStep(first, Skipped("ext-first"));
    expectStep(first, Skipped("ext-last"));
}

TEST_F(Registry, TakesOnlyLibrariesThatAreNoExtensions)
{
    device.addModule("abc");
    device.addModule("EXT-decrypt");
    device.addModule("ext-x");
    writeFile(inModuleDirectory("abc.json"), "{}");
    writeFile(inModuleDirectory("lib.so.1"), "");

    ASSERT_TRUE(manager->getIsReady(true));

    expectTextsInAnyOrder(logTexts(),
                          {"En/Decryption Service EXT skip [EXT-decrypt]",
                           "En/Decryption Service EXT skip [ext-x]", "SWModel : QUILLON"});
    expectTexts(registered(), {"abc"});
}

TEST_F(Registry, SkipsTheMarkAnywhereInTheNameAndInAnyCase)
{
    for (const char* name : {"a-ExT-b", "next-1", "tail-ext-"}) {
        device.addModule(name);
    }

    ASSERT_TRUE(manager->getIsReady(true));

    expectTextsInAnyOrder(
        logTexts(),
        {"En/Decryption Service EXT skip [a-ExT-b]", "En/Decryption Service EXT skip [next-1]",
         "En/Decryption Service EXT skip [tail-ext-]", "SWModel : QUILLON"});
    expectTexts(registered(), {});
}

TEST_F(Registry, DoesNotSkipWhatOnlyResemblesTheMark)
{
    device.addModule("ext");
    device.addModule("extra");
    device.addModule("e-xt-", Module().withEmpid("exemp"));

    ASSERT_TRUE(manager->getIsReady(true));

    expectTextsInAnyOrder(registered(), {"ext", "extra", "ex"});
}

TEST_F(Registry, LooksForTheMarkInTheStemOnlyAndBeforeTheExtension)
{
    writeFile(inModuleDirectory("notes.ext-1"), "");
    writeFile(inModuleDirectory("ext-notes.txt"), "");

    ASSERT_TRUE(manager->getIsReady(true));

    expectTexts(logTexts(), {"En/Decryption Service EXT skip [ext-notes]", "SWModel : QUILLON"});
}

TEST_F(Registry, WithoutTheSkipFlagTakesExtensionModulesAsWell)
{
    device.addModule("EXT-decrypt");

    ASSERT_TRUE(manager->getIsReady(false));

    expectSteps({ToldWhoAsks("EXT-decrypt"),
                 LogFrom("loadSymbol", ERROR, "Not Update Symbol [EXT-decrypt]"),
                 AskedForTheVersion(), Model()});
    EXPECT_EQ(registered().size(), 1U);
}

TEST_F(Registry, ComparesTheExtensionExactly)
{
    for (const char* name : {"abc.SO", "abc.So", "abc.soo", "abc.s", "so", "abcso", "abc.so~"}) {
        writeFile(inModuleDirectory(name), "");
    }

    ASSERT_TRUE(manager->getIsReady(true));

    expectTexts(registered(), {});
}

TEST_F(Registry, TakesTheLastExtensionOfAName)
{
    device.addModule("abc.so", Module().withEmpid("innerexemp"));

    ASSERT_TRUE(manager->getIsReady(true));

    expectStep(Plugin("abc.so.setContext(\"abc.so\", 2, \"\")"));
    expectTexts(registered(), {"innerex"});
}

TEST_F(Registry, TakesALeadingDotForTheBeginningOfTheExtension)
{
    writeFile(inModuleDirectory(".so"), "");
    recordCalls({"dlopen"});

    ASSERT_TRUE(manager->getIsReady(true));

    expectSteps({AskedForTheVersion(), Model()});
    expectTexts(registered(), {""});
}

TEST_F(Registry, TakesEntriesOfEveryKind)
{
    makeDirectory(inModuleDirectory("directory.so"));
    ASSERT_EQ(symlink("/nowhere", inModuleDirectory("link.so").c_str()), 0);

    ASSERT_TRUE(manager->getIsReady(true));

    expectTexts(registered(), {"", ""});
}

TEST_F(Registry, DoesNotLookIntoDirectories)
{
    makeDirectory(inModuleDirectory("inner"));
    writeFile(inModuleDirectory("inner/abc.so"), "");

    ASSERT_TRUE(manager->getIsReady(true));

    expectTexts(registered(), {});
}

TEST_F(Registry, KeepsAModuleThatDoesNotLoad)
{
    device.addModule("alpha");
    writeFile(device.modulePath("broken"), "this is no library");
    device.addModule("lacking", Module().lacking("checkVersion"));

    EXPECT_TRUE(manager->getIsReady(true));

    expectTextsInAnyOrder(registered(), {"alpha", "", ""});
}

TEST_F(Registry, OfAMissingDirectoryDoesNotStand)
{
    std::filesystem::remove(kModuleDirectory);

    EXPECT_FALSE(manager->getIsReady(true));

    expectSteps({LogFrom(
        "onCreate", ERROR,
        like("File System Exception: *No such file or directory*/usr/fwupdate/controls* "))});
}

TEST_F(Registry, TriesAgainAfterAFailedPass)
{
    std::filesystem::remove(kModuleDirectory);
    ASSERT_FALSE(manager->getIsReady(true));
    device.addModule("alpha");

    EXPECT_TRUE(manager->getIsReady(true));

    expectTexts(registered(), {"alpha"});
}

TEST_F(Registry, ThatStandsIsNeverBuiltAgain)
{
    ASSERT_TRUE(manager->getIsReady(true));
    device.addModule("alpha");
    clear();

    EXPECT_TRUE(manager->getIsReady(true));

    expectSteps({});
    expectTexts(registered(), {});
}

TEST_F(Registry, RepeatedPassAppends)
{
    device.addModule("alpha");
    ASSERT_TRUE(manager->onCreate(true));
    ASSERT_TRUE(manager->onCreate(true));

    expectTexts(registered(), {"alpha", "alpha"});
}

TEST_F(Registry, LetsErrorsOfOtherKindsPass)
{
    if (!canFailAllocations()) {
        GTEST_SKIP() << "the sanitizer's allocator cannot be made to fail";
    }
    device.addModule("alpha");
    failAllocation(sizeof(FWUpdateSymbol));

    EXPECT_THROW(manager->getIsReady(true), std::bad_alloc);

    expectTexts(logTexts(), {});
    EXPECT_TRUE(manager->getIsReady(true));
}

TEST_F(Registry, IsEmptiedOnDemandAndStillCountsAsReady)
{
    device.addModule("alpha");
    recordCalls({"dlclose"});
    ASSERT_TRUE(manager->getIsReady(true));
    clear();

    EXPECT_TRUE(manager->onDestroy());

    expectSteps({Call("dlclose(\"/usr/fwupdate/controls/alpha.so\") = 0")});
    expectTexts(registered(), {});
    EXPECT_TRUE(manager->getIsReady(true));
    expectTexts(registered(), {});
}
