// Copies of a module's record share its library, which is closed once, after the last of them.

#include <functional>
#include <memory>
#include <vector>

#include "fw-update-symbol.h"
#include "support/device-fixture.h"

namespace quillon::test {
namespace {

using namespace fakes;

constexpr char kOpened[] = "dlopen(\"/usr/fwupdate/controls/alpha.so\", RTLD_NOW) = ok";
constexpr char kClosed[] = "dlclose(\"/usr/fwupdate/controls/alpha.so\") = 0";

class SymbolCopies : public DeviceTest
{
protected:
    SymbolCopies()
    {
        device.addModule("alpha", Module().needsUpdate().takesSeconds(30));
        recordCalls({"dlopen", "dlclose"});
    }

    static std::unique_ptr<FWUpdateSymbol> loadedAlpha()
    {
        auto module = std::make_unique<FWUpdateSymbol>("alpha");
        EXPECT_EQ(module->loadSymbol("alpha"), 0);
        return module;
    }
};

TEST_F(SymbolCopies, ARecordClosesItsLibraryWhenItIsDestroyed)
{
    loadedAlpha().reset();

    expectTexts(callTexts(), {kOpened, kClosed});
}

TEST_F(SymbolCopies, ARecordThatWasNeverLoadedClosesNothing)
{
    {
        const FWUpdateSymbol module("alpha");
    }
    expectTexts(callTexts(), {});
}

TEST_F(SymbolCopies, ALibraryThatCouldNotBeOpenedIsNeverClosed)
{
    device.addModuleFile("junk", bytesOf("no library"));
    {
        FWUpdateSymbol module("junk");
        EXPECT_EQ(module.loadSymbol("junk"), -1);
    }
    expectTexts(callTexts(), {"dlopen(\"/usr/fwupdate/controls/junk.so\", RTLD_NOW) = failed"});
}

TEST_F(SymbolCopies, TheLibraryStaysOpenForACopyAndIsClosedOnce)
{
    auto original = loadedAlpha();
    auto copy = std::make_unique<FWUpdateSymbol>(*original);

    original.reset();
    expectTexts(callTexts(), {kOpened});
    int seconds = 0;
    EXPECT_EQ(copy->getExpectedTime(&seconds), 0);
    EXPECT_EQ(seconds, 30);
    EXPECT_EQ(copy->getFirmwareName(), "alpha");

    copy.reset();
    expectTexts(callTexts(), {kOpened, kClosed});
}

TEST_F(SymbolCopies, AGrowingSequenceOfRecordsKeepsTheLibrariesOpen)
{
    std::vector<FWUpdateSymbol> modules;
    modules.push_back(*loadedAlpha());
    modules.reserve(modules.capacity() + 1);
    modules.emplace_back("another");

    expectTexts(callTexts(), {kOpened});
    int need = 0;
    EXPECT_EQ(modules.front().checkVersion("2.0", &need), 0);

    modules.clear();
    expectTexts(callTexts(), {kOpened, kClosed});
}

TEST_F(SymbolCopies, AssigningOverTheLastRecordClosesItsLibrary)
{
    auto module = loadedAlpha();

    *module = FWUpdateSymbol("another");

    expectTexts(callTexts(), {kOpened, kClosed});
    EXPECT_EQ(module->getLibName(), "another");
}

TEST_F(SymbolCopies, ASecondLoadClosesTheLibraryOfTheFirst)
{
    device.addModule("beta");
    auto module = loadedAlpha();

    EXPECT_EQ(module->loadSymbol("beta"), 0);

    expectTexts(callTexts(),
                {kOpened, "dlopen(\"/usr/fwupdate/controls/beta.so\", RTLD_NOW) = ok", kClosed});
    EXPECT_EQ(module->getFirmwareName(), "beta");
}

TEST_F(SymbolCopies, ASecondLoadThatFailsLeavesNothingOfTheFirstToBeCalled)
{
    device.addModuleFile("junk", bytesOf("no library"));
    auto module = loadedAlpha();

    EXPECT_EQ(module->loadSymbol("junk"), -1);

    int number = 0;
    unsigned int progress = 0;
    EXPECT_THROW(module->checkVersion("2.0", &number), std::bad_function_call);
    EXPECT_EQ(module->getExpectedTime(&number), -1);
    EXPECT_EQ(module->getUpdateProgress(&progress), -1);
    EXPECT_EQ(module->allUpdateDone(), -1);
}

TEST_F(SymbolCopies, ACopyTakesTheLastDecisionWithIt)
{
    device.addVerifier();
    device.stick().addImage("alpha", Image());
    auto original = loadedAlpha();
    ASSERT_EQ(original->getNeedUpdateList(key, device.stick().path()), 1);

    const FWUpdateSymbol copy(*original);
    device.changeModule("alpha", Module().upToDate().takesSeconds(5));
    ASSERT_EQ(original->getNeedUpdateList(key, device.stick().path()), 0);

    EXPECT_TRUE(copy.getNeedUpdate());
    EXPECT_EQ(copy.getExpectedUpdateTime(), 30);
    EXPECT_FALSE(original->getNeedUpdate());
    EXPECT_EQ(original->getExpectedUpdateTime(), 5);
}

}  // namespace
}  // namespace quillon::test
