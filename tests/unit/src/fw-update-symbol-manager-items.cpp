// Modules described as items.

#include <cstddef>
#include <cstring>
#include <functional>
#include <list>
#include <string>
#include <vector>

#include "fw-update-symbol-manager-runs.h"

using namespace quillon::fakes;
using namespace quillon::test;

namespace {

constexpr std::size_t kFieldSize = 128;

std::string textOfLength(std::size_t length)
{
    return std::string(length, 'x');
}

/// The whole field as it must look: the text, and zeros behind it.
std::string field(const std::string& text)
{
    return text + std::string(kFieldSize - text.size(), '\0');
}

std::string wholeOf(const char (&bytes)[kFieldSize])
{
    return std::string(bytes, kFieldSize);
}

class Items : public RunTest
{
protected:
    std::vector<std::string> threeModules()
    {
        for (const char* name : {"mike", "alpha", "zulu"}) {
            addModule(name, Module().needsUpdate().running("1 " + std::string(name)));
        }
        start();
        return listedModules();
    }

    std::vector<std::string> libNames() const
    {
        std::vector<std::string> names;
        for (const FWUpdateItem& item : items) {
            names.emplace_back(item.libName);
        }
        return names;
    }

    std::list<FWUpdateItem> items;
};

}  // namespace

TEST(FWUpdateItemTest, HasThreeFieldsOf128Bytes)
{
    EXPECT_EQ(offsetof(FWUpdateItem, libName), 0U);
    EXPECT_EQ(offsetof(FWUpdateItem, version), 128U);
    EXPECT_EQ(offsetof(FWUpdateItem, firmwareName), 256U);
    EXPECT_EQ(sizeof(FWUpdateItem), 384U);
}

TEST(FWUpdateItemTest, HoldsItsTextsAndZerosBehindThem)
{
    // Where the item comes to lie there was something else.
    alignas(FWUpdateItem) unsigned char memory[sizeof(FWUpdateItem)];
    std::memset(memory, 0xFF, sizeof(memory));
    const auto* item = new (memory) FWUpdateItem("library", "", "firmware");

    EXPECT_EQ(wholeOf(item->libName), field("library"));
    EXPECT_EQ(wholeOf(item->version), field(""));
    EXPECT_EQ(wholeOf(item->firmwareName), field("firmware"));
}

TEST(FWUpdateItemTest, CutsATextThatDoesNotFit)
{
    const FWUpdateItem item(textOfLength(126).c_str(), textOfLength(127).c_str(),
                            textOfLength(128).c_str());

    EXPECT_EQ(wholeOf(item.libName), field(textOfLength(126)));
    EXPECT_EQ(wholeOf(item.version), field(textOfLength(127)));
    EXPECT_EQ(wholeOf(item.firmwareName), field(textOfLength(127)));
}

TEST(FWUpdateItemTest, TakesANullTextForAnEmptyOne)
{
    const FWUpdateItem item(nullptr, "1.0", nullptr);

    EXPECT_EQ(wholeOf(item.libName), field(""));
    EXPECT_EQ(wholeOf(item.version), field("1.0"));
    EXPECT_EQ(wholeOf(item.firmwareName), field(""));
}

TEST(FWUpdateItemTest, IsCopiedByTheSameRule)
{
    FWUpdateItem item("library", "1.0", "firmware");
    std::memset(item.version, 'v', sizeof(item.version));
    item.firmwareName[4] = '\0';

    const FWUpdateItem copy(item);

    EXPECT_EQ(wholeOf(copy.libName), field("library"));
    EXPECT_EQ(wholeOf(copy.version), field(std::string(127, 'v')));
    EXPECT_EQ(wholeOf(copy.firmwareName), field("firm"));
}

TEST(FWUpdateItemTest, CanBeAssigned)
{
    FWUpdateItem item("library", "1.0", "firmware");

    item = FWUpdateItem("other", "2.0", "another");

    EXPECT_STREQ(item.libName, "other");
    EXPECT_STREQ(item.version, "2.0");
    EXPECT_STREQ(item.firmwareName, "another");
}

TEST_F(Items, DescribeEveryModuleInOrder)
{
    const std::vector<std::string> names = threeModules();

    EXPECT_EQ(manager->getFwItems(items), 0);

    EXPECT_EQ(libNames(), names);
    EXPECT_STREQ(items.front().version, ("1 " + names[0]).c_str());
    EXPECT_STREQ(items.back().version, ("1 " + names[2]).c_str());
}

TEST_F(Items, NameLibraryVersionAndFirmware)
{
    device.addModule("alpha", Module().withEmpid("tuneremp").running("1.7"));
    start();

    manager->getFwItems(items);

    ASSERT_EQ(items.size(), 1U);
    EXPECT_STREQ(items.front().libName, "alpha");
    EXPECT_STREQ(items.front().version, "1.7");
    EXPECT_STREQ(items.front().firmwareName, "tuner");
}

TEST_F(Items, AreMadeWithoutACheck)
{
    addModule("alpha", Module().needsUpdate());
    start();

    manager->getFwItems(items);

    expectSteps(
        {Plugin("alpha.setContext(\"alpha\", 2, \"\")"), Plugin("alpha.getActiveVersion()")});
}

TEST_F(Items, OfNoModulesAreNone)
{
    start();

    EXPECT_EQ(manager->getFwItems(items), 0);
    EXPECT_EQ(manager->getUpdateFwItems(items, CALLER_SYSTEM, noText), 0);

    EXPECT_TRUE(items.empty());
}

TEST_F(Items, FollowThoseThatAreThere)
{
    addModule("alpha", Module().needsUpdate());
    start();
    items.emplace_back("earlier", "", "");

    EXPECT_EQ(manager->getFwItems(items), 0);
    EXPECT_EQ(manager->getUpdateFwItems(items, CALLER_SYSTEM, noText), 0);

    expectTexts(libNames(), {"earlier", "alpha", "alpha"});
}

TEST_F(Items, CutALibraryNameThatDoesNotFit)
{
    const std::string name = std::string(127, 'a') + std::string(73, 'b');
    device.addModule(name, Module().withEmpid("alphaemp"));
    start();

    manager->getFwItems(items);

    ASSERT_EQ(items.size(), 1U);
    EXPECT_EQ(wholeOf(items.front().libName), field(std::string(127, 'a')));
    EXPECT_STREQ(items.front().firmwareName, "alpha");
}

TEST_F(Items, CutAVersionThatIsNotTerminated)
{
    addModule("alpha", Module().running(std::string(127, 'v') + "w"));
    start();

    manager->getFwItems(items);

    ASSERT_EQ(items.size(), 1U);
    EXPECT_EQ(wholeOf(items.front().version), field(std::string(127, 'v')));
}

TEST_F(Items, TakeNothingFromTheModuleBefore)
{
    for (const char* name : {"mike", "alpha", "zulu"}) {
        addModule(name, Module().running("a version"));
    }
    start();
    const std::vector<std::string> names = listedModules();
    device.changeModule(names[1], Module().leavesVersionAlone());

    manager->getFwItems(items);

    ASSERT_EQ(items.size(), 3U);
    EXPECT_EQ(wholeOf(std::next(items.begin())->version), field(""));
}

TEST_F(Items, IgnoreThatAVersionIsRefused)
{
    addModule("alpha", Module().returning("getActiveVersion", -1));
    start();

    EXPECT_EQ(manager->getFwItems(items), 0);

    ASSERT_EQ(items.size(), 1U);
    EXPECT_STREQ(items.front().version, "1.0");
}

TEST_F(Items, EndWithAnErrorAtAModuleThatIsNotLoaded)
{
    device.addModuleFile("broken", bytesOf("no library"));
    start();

    EXPECT_THROW(manager->getFwItems(items), std::bad_function_call);

    EXPECT_TRUE(items.empty());
}

TEST_F(Items, ToUpdateAreThoseWhoseCheckSaysOne)
{
    const std::vector<std::string> names = threeModules();
    device.changeModule(names[1], Module().upToDate());

    EXPECT_EQ(manager->getUpdateFwItems(items, CALLER_SYSTEM, noText), 0);
    expectTexts(libNames(), {names[0], names[2]});

    device.changeModule(names[0], Module().needs(2));
    device.changeModule(names[2], Module().needs(-1));
    items.clear();
    EXPECT_EQ(manager->getUpdateFwItems(items, CALLER_SYSTEM, noText), 0);
    expectTexts(libNames(), {});
}

TEST_F(Items, ToUpdateAreCheckedForTheCaller)
{
    addModule("alpha", Module().needsUpdate().running("1.7"));
    start();
    char text[] = "some text";

    EXPECT_EQ(manager->getUpdateFwItems(items, CALLER_SYSTEM_2, text), 0);

    expectTexts(
        pluginTexts(),
        {"alpha.setContext(\"alpha\", 6, \"some text\")", "alpha.checkVersion(\"2.0\", need 0)",
         "alpha.setContext(\"alpha\", 2, \"\")", "alpha.getActiveVersion()"});
    ASSERT_EQ(items.size(), 1U);
    EXPECT_STREQ(items.front().version, "1.7");
    EXPECT_STREQ(items.front().firmwareName, "alpha");
}

TEST_F(Items, ToUpdateLeaveOutAModuleWithNothingOnOffer)
{
    device.addModule("alpha", Module().needsUpdate());
    device.addModuleFile("broken", bytesOf("no library"));
    start();

    EXPECT_EQ(manager->getUpdateFwItems(items, CALLER_SERVICE, noText), 0);

    EXPECT_TRUE(items.empty());
}
