#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <new>

#include "fw-update-symbol-manager-registry.h"

using namespace quillon::fakes;
using namespace quillon::test;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;

namespace {

EntryMatcher Skipped(const std::string& stem)
{
    return LogFrom("onCreate", ERROR, "En/Decryption Service EXT skip [" + stem + "]");
}

EntryMatcher Opened(const std::string& name)
{
    return Call("dlopen(\"/usr/fwupdate/controls/" + name + ".so\", RTLD_NOW) = ok");
}

EntryMatcher ToldWhoAsks(const std::string& name)
{
    return Plugin(name + ".setContext(\"" + name + "\", 2, \"\")");
}

EntryMatcher AskedForItsName(const std::string& name)
{
    return Plugin(name + ".getEMPID()");
}

EntryMatcher AskedForTheVersion()
{
    return Call("system_info_get_value_string(128) = 0");
}

EntryMatcher Model()
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

    EXPECT_THAT(timeline(), ElementsAre(AskedForTheVersion(), Model()));
    EXPECT_THAT(registered(), IsEmpty());
}

TEST_F(Registry, LoadsAModuleThenReadsTheVersion)
{
    device.addModule("alpha");
    recordCalls({"dlopen"});

    EXPECT_TRUE(manager->getIsReady(true));

    EXPECT_THAT(timeline(), ElementsAre(Opened("alpha"), ToldWhoAsks("alpha"),
                                        AskedForItsName("alpha"), AskedForTheVersion(), Model()));
    EXPECT_THAT(registered(), ElementsAre("alpha"));
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
    EXPECT_THAT(std::vector<Entry>(all.begin(), all.begin() + 2),
                UnorderedElementsAre(Skipped("ext-first"), Skipped("ext-last")));
}

TEST_F(Registry, TakesOnlyLibrariesThatAreNoExtensions)
{
    device.addModule("abc");
    device.addModule("EXT-decrypt");
    device.addModule("ext-x");
    writeFile(inModuleDirectory("abc.json"), "{}");
    writeFile(inModuleDirectory("lib.so.1"), "");

    ASSERT_TRUE(manager->getIsReady(true));

    EXPECT_THAT(logTexts(), UnorderedElementsAre("En/Decryption Service EXT skip [EXT-decrypt]",
                                                 "En/Decryption Service EXT skip [ext-x]",
                                                 "SWModel : QUILLON"));
    EXPECT_THAT(registered(), ElementsAre("abc"));
}

TEST_F(Registry, SkipsTheMarkAnywhereInTheNameAndInAnyCase)
{
    for (const char* name : {"a-ExT-b", "next-1", "tail-ext-"}) {
        device.addModule(name);
    }

    ASSERT_TRUE(manager->getIsReady(true));

    EXPECT_THAT(logTexts(), UnorderedElementsAre("En/Decryption Service EXT skip [a-ExT-b]",
                                                 "En/Decryption Service EXT skip [next-1]",
                                                 "En/Decryption Service EXT skip [tail-ext-]",
                                                 "SWModel : QUILLON"));
    EXPECT_THAT(registered(), IsEmpty());
}

TEST_F(Registry, DoesNotSkipWhatOnlyResemblesTheMark)
{
    device.addModule("ext");
    device.addModule("extra");
    device.addModule("e-xt-", Module().withEmpid("exemp"));

    ASSERT_TRUE(manager->getIsReady(true));

    EXPECT_THAT(registered(), UnorderedElementsAre("ext", "extra", "ex"));
}

TEST_F(Registry, LooksForTheMarkInTheStemOnlyAndBeforeTheExtension)
{
    writeFile(inModuleDirectory("notes.ext-1"), "");
    writeFile(inModuleDirectory("ext-notes.txt"), "");

    ASSERT_TRUE(manager->getIsReady(true));

    EXPECT_THAT(logTexts(),
                ElementsAre("En/Decryption Service EXT skip [ext-notes]", "SWModel : QUILLON"));
}

TEST_F(Registry, WithoutTheSkipFlagTakesExtensionModulesAsWell)
{
    device.addModule("EXT-decrypt");

    ASSERT_TRUE(manager->getIsReady(false));

    EXPECT_THAT(timeline(),
                ElementsAre(ToldWhoAsks("EXT-decrypt"),
                            LogFrom("loadSymbol", ERROR, "Not Update Symbol [EXT-decrypt]"),
                            AskedForTheVersion(), Model()));
    EXPECT_EQ(registered().size(), 1U);
}

TEST_F(Registry, ComparesTheExtensionExactly)
{
    for (const char* name : {"abc.SO", "abc.So", "abc.soo", "abc.s", "so", "abcso", "abc.so~"}) {
        writeFile(inModuleDirectory(name), "");
    }

    ASSERT_TRUE(manager->getIsReady(true));

    EXPECT_THAT(registered(), IsEmpty());
}

TEST_F(Registry, TakesTheLastExtensionOfAName)
{
    device.addModule("abc.so", Module().withEmpid("innerexemp"));

    ASSERT_TRUE(manager->getIsReady(true));

    EXPECT_THAT(pluginTexts(), ::testing::Contains("abc.so.setContext(\"abc.so\", 2, \"\")"));
    EXPECT_THAT(registered(), ElementsAre("innerex"));
}

TEST_F(Registry, TakesALeadingDotForTheBeginningOfTheExtension)
{
    writeFile(inModuleDirectory(".so"), "");
    recordCalls({"dlopen"});

    ASSERT_TRUE(manager->getIsReady(true));

    EXPECT_THAT(timeline(), ElementsAre(AskedForTheVersion(), Model()));
    EXPECT_THAT(registered(), ElementsAre(""));
}

TEST_F(Registry, TakesEntriesOfEveryKind)
{
    makeDirectory(inModuleDirectory("directory.so"));
    ASSERT_EQ(symlink("/nowhere", inModuleDirectory("link.so").c_str()), 0);

    ASSERT_TRUE(manager->getIsReady(true));

    EXPECT_THAT(registered(), ElementsAre("", ""));
}

TEST_F(Registry, DoesNotLookIntoDirectories)
{
    makeDirectory(inModuleDirectory("inner"));
    writeFile(inModuleDirectory("inner/abc.so"), "");

    ASSERT_TRUE(manager->getIsReady(true));

    EXPECT_THAT(registered(), IsEmpty());
}

TEST_F(Registry, KeepsAModuleThatDoesNotLoad)
{
    device.addModule("alpha");
    writeFile(device.modulePath("broken"), "this is no library");
    device.addModule("lacking", Module().lacking("checkVersion"));

    EXPECT_TRUE(manager->getIsReady(true));

    EXPECT_THAT(registered(), UnorderedElementsAre("alpha", "", ""));
}

TEST_F(Registry, OfAMissingDirectoryDoesNotStand)
{
    std::filesystem::remove(kModuleDirectory);

    EXPECT_FALSE(manager->getIsReady(true));

    EXPECT_THAT(timeline(), ElementsAre(LogFrom("onCreate", ERROR,
                                                AllOf(StartsWith("File System Exception: "),
                                                      HasSubstr("No such file or directory"),
                                                      HasSubstr("/usr/fwupdate/controls"),
                                                      ::testing::EndsWith(" ")))));
}

TEST_F(Registry, TriesAgainAfterAFailedPass)
{
    std::filesystem::remove(kModuleDirectory);
    ASSERT_FALSE(manager->getIsReady(true));
    device.addModule("alpha");

    EXPECT_TRUE(manager->getIsReady(true));

    EXPECT_THAT(registered(), ElementsAre("alpha"));
}

TEST_F(Registry, ThatStandsIsNeverBuiltAgain)
{
    ASSERT_TRUE(manager->getIsReady(true));
    device.addModule("alpha");
    clear();

    EXPECT_TRUE(manager->getIsReady(true));

    EXPECT_THAT(timeline(), IsEmpty());
    EXPECT_THAT(registered(), IsEmpty());
}

TEST_F(Registry, RepeatedPassAppends)
{
    device.addModule("alpha");
    ASSERT_TRUE(manager->onCreate(true));
    ASSERT_TRUE(manager->onCreate(true));

    EXPECT_THAT(registered(), ElementsAre("alpha", "alpha"));
}

TEST_F(Registry, LetsErrorsOfOtherKindsPass)
{
    if (!canFailAllocations()) {
        GTEST_SKIP() << "the sanitizer's allocator cannot be made to fail";
    }
    device.addModule("alpha");
    failAllocation(sizeof(FWUpdateSymbol));

    EXPECT_THROW(manager->getIsReady(true), std::bad_alloc);

    EXPECT_THAT(logTexts(), IsEmpty());
    EXPECT_TRUE(manager->getIsReady(true));
}

TEST_F(Registry, IsEmptiedOnDemandAndStillCountsAsReady)
{
    device.addModule("alpha");
    recordCalls({"dlclose"});
    ASSERT_TRUE(manager->getIsReady(true));
    clear();

    EXPECT_TRUE(manager->onDestroy());

    EXPECT_THAT(timeline(), ElementsAre(Call("dlclose(\"/usr/fwupdate/controls/alpha.so\") = 0")));
    EXPECT_THAT(registered(), IsEmpty());
    EXPECT_TRUE(manager->getIsReady(true));
    EXPECT_THAT(registered(), IsEmpty());
}
