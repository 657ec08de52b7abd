// What an observer is told of each module, and that nothing else changes.

#include <gmock/gmock.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "fw-update-symbol-manager-runs.h"
#include "support/module-observer.h"

using namespace quillon;
using namespace quillon::test;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::UnorderedElementsAre;

namespace {

class Witness : public ModuleObserver
{
public:
    ~Witness() { moduleObserver = nullptr; }

    void hear(const ModuleNews& news) override
    {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            heard_.push_back(news);
            threads_.push_back(std::this_thread::get_id());
        }
        isTold_.notify_all();
    }

    /// What was told since the last time.
    std::vector<ModuleNews> take()
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        threads_.clear();
        return std::exchange(heard_, {});
    }

    bool waitFor(std::size_t count)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return isTold_.wait_for(lock, kLongEnough, [&] { return heard_.size() >= count; });
    }

    std::vector<std::thread::id> threads()
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return threads_;
    }

private:
    std::mutex mutex_;
    std::condition_variable isTold_;
    std::vector<ModuleNews> heard_;
    std::vector<std::thread::id> threads_;
};

auto Told(ModuleEvent event, const std::string& module, int result,
          ModuleReason reason = ModuleReason::kNone)
{
    return AllOf(Field(&ModuleNews::event, event), Field(&ModuleNews::libName, module),
                 Field(&ModuleNews::result, result), Field(&ModuleNews::reason, reason));
}

class Observer : public RunTest
{
protected:
    void startObserved()
    {
        moduleObserver = &witness;
        start();
        witness.take();
    }

    /// What a check of the only module decides.
    ModuleNews decision(CallerTypes caller = CALLER_SERVICE)
    {
        std::list<FWUpdateItem> items;
        manager->getUpdateFwItems(items, caller, noText);
        const std::vector<ModuleNews> told = witness.take();
        EXPECT_THAT(told, ElementsAre(Told(ModuleEvent::kChecking, "alpha", 0),
                                      Field(&ModuleNews::event, ModuleEvent::kDecided)));
        return told.back();
    }

    Witness witness;
};

TEST_F(Observer, IsToldWhichModulesLoadAndWhyOthersDoNot)
{
    device.addModule("alpha", Module().lacking("checkVersion"));
    moduleObserver = &witness;

    start();

    const std::vector<ModuleNews> told = witness.take();
    EXPECT_THAT(told, ElementsAre(Told(ModuleEvent::kLoading, "alpha", 0),
                                  Told(ModuleEvent::kLoaded, "alpha", -1, ModuleReason::kNoEntry)));
    EXPECT_EQ(told.back().detail, "checkVersion");
}

TEST_F(Observer, IsToldWhatTheLinkerSaysOfALibraryThatDoesNotLoad)
{
    device.addModuleFile("alpha", Bytes(100, 'x'));
    moduleObserver = &witness;

    start();

    const std::vector<ModuleNews> told = witness.take();
    EXPECT_THAT(told,
                ElementsAre(Told(ModuleEvent::kLoading, "alpha", 0),
                            Told(ModuleEvent::kLoaded, "alpha", -1, ModuleReason::kNotLoadable)));
    fakes::expectText(told.back().detail, like("*alpha.so*"));
}

TEST_F(Observer, IsToldWhyAModuleNeedsNoUpdate)
{
    addModule("alpha", Module().upToDate());
    startObserved();

    EXPECT_THAT(decision(), Told(ModuleEvent::kDecided, "alpha", 0, ModuleReason::kUpToDate));
}

TEST_F(Observer, IsToldThatAModuleNeedsAnUpdate)
{
    addModule("alpha");
    startObserved();

    EXPECT_THAT(decision(), Told(ModuleEvent::kDecided, "alpha", 1));
}

TEST_F(Observer, IsToldThatThePluginFailedTheCheck)
{
    addModule("alpha", Module().upToDate().returning("checkVersion", -1));
    startObserved();

    EXPECT_THAT(decision(), Told(ModuleEvent::kDecided, "alpha", 0, ModuleReason::kCheckFailed));
}

TEST_F(Observer, IsToldThatThereIsNoPackage)
{
    device.addModule("alpha", updatedOnTime());
    startObserved();

    EXPECT_THAT(decision(), Told(ModuleEvent::kDecided, "alpha", -1, ModuleReason::kNoPackage));
}

TEST_F(Observer, IsToldThatThereIsNoImage)
{
    device.addModule("alpha", updatedOnTime());
    startObserved();

    EXPECT_THAT(decision(CALLER_SYSTEM),
                Told(ModuleEvent::kDecided, "alpha", -1, ModuleReason::kNoImage));
}

TEST_F(Observer, IsToldThatTheImageIsNotWhatItsChecksumSays)
{
    addModule("alpha");
    writeFile("/lib/firmware/ext/alpha/alpha.bin", "something else");
    startObserved();

    EXPECT_THAT(decision(CALLER_SYSTEM),
                Told(ModuleEvent::kDecided, "alpha", -1, ModuleReason::kBadChecksum));
}

TEST_F(Observer, IsToldOfEachImageOnAStick)
{
    device.addVerifier();
    device.verifierSays(0);
    const Stick stick = device.stick();
    device.addModule("alpha", Module());
    stick.addImage("alpha", Image());
    startObserved();
    int total = 0;

    manager->getFirmwareUpdateTime(key, stick.path(), total);
    EXPECT_THAT(witness.take(),
                ElementsAre(Told(ModuleEvent::kChecking, "alpha", 0),
                            Told(ModuleEvent::kDecided, "alpha", -1, ModuleReason::kNotSigned)));

    manager->getFirmwareUpdateTime(key, "/nowhere/", total);
    EXPECT_THAT(witness.take(),
                ElementsAre(Told(ModuleEvent::kChecking, "alpha", 0),
                            Told(ModuleEvent::kDecided, "alpha", -1, ModuleReason::kNoImage)));
}

TEST_F(Observer, IsToldOfAnUpdatesBeginningAndEndOnTheThreadThatUpdates)
{
    addModule("alpha");
    startObserved();

    manager->doUpdateFirmware("alpha", CALLER_SYSTEM, noText);

    const std::vector<std::thread::id> threads = witness.threads();
    EXPECT_THAT(witness.take(), ElementsAre(Told(ModuleEvent::kChecking, "alpha", 0),
                                            Told(ModuleEvent::kDecided, "alpha", 1),
                                            Told(ModuleEvent::kStarted, "alpha", 0),
                                            Told(ModuleEvent::kFlashing, "alpha", 0),
                                            Told(ModuleEvent::kEnded, "alpha", 0)));
    EXPECT_EQ(threads[2], threads[3]);
    EXPECT_EQ(threads[2], threads[4]);
    EXPECT_NE(threads[2], std::this_thread::get_id());
}

TEST_F(Observer, IsToldBeforeThePluginIsAskedToFlashAndKeepsTheVersionForTheEnd)
{
    device.addVerifier();
    const Stick stick = device.stick();
    std::vector<ModuleNews> before;
    device.addModule("alpha", Module().needsUpdate().onPayload(
                                  [&](const unsigned char* /*data*/, int /*length*/) {
                                      before = witness.take();
                                  }));
    stick.addImage("alpha", Image().version("2.0"));
    startObserved();
    int total = 0;
    manager->getFirmwareUpdateTime(key, stick.path(), total);
    witness.take();

    EXPECT_EQ(manager->doUpdateUSB(key, stick.path()), 0);

    EXPECT_THAT(before, ElementsAre(Told(ModuleEvent::kStarted, "alpha", 0),
                                    Told(ModuleEvent::kFlashing, "alpha", 0)));
    const std::vector<ModuleNews> after = witness.take();
    EXPECT_THAT(after, ElementsAre(Told(ModuleEvent::kEnded, "alpha", 0)));
    EXPECT_EQ(after.back().offered, "2.0");
}

TEST_F(Observer, IsToldOfNoFlashWhereThereIsNothingToFlash)
{
    device.addVerifier();
    const Stick stick = device.stick();
    device.addModule("alpha", Module().needsUpdate().lacking("doUpdate_decryption"));
    stick.addImage("alpha", Image());
    startObserved();
    int total = 0;
    manager->getFirmwareUpdateTime(key, stick.path(), total);
    const auto update = [&] {
        witness.take();
        EXPECT_EQ(manager->doUpdateUSB(key, stick.path()), -1);
        return witness.take();
    };

    EXPECT_THAT(update(),
                ElementsAre(Told(ModuleEvent::kStarted, "alpha", 0),
                            Told(ModuleEvent::kEnded, "alpha", -1, ModuleReason::kUpdateFailed)));
    device.verifierSays(0);
    EXPECT_THAT(update(),
                ElementsAre(Told(ModuleEvent::kStarted, "alpha", 0),
                            Told(ModuleEvent::kEnded, "alpha", -1, ModuleReason::kNotSigned)));
}

TEST_F(Observer, IsToldThePluginsOwnCode)
{
    addModule("alpha", updatedOnTime().returning("doUpdate", 7));
    startObserved();

    EXPECT_EQ(manager->doUpdateFirmware("alpha", CALLER_SYSTEM, noText), 7);

    EXPECT_THAT(witness.take().back(),
                Told(ModuleEvent::kEnded, "alpha", 7, ModuleReason::kUpdateFailed));
}

TEST_F(Observer, IsToldOfAnExceptionInAnUpdate)
{
    addModule("alpha",
              Module().needsUpdate().onUpdate([](const char* /*path*/, unsigned long /*value*/) {
                  fakes::awaitTimedWait();
                  throw std::runtime_error("flash worn out");
              }));
    startObserved();

    EXPECT_EQ(manager->doUpdateFirmware("alpha", CALLER_SYSTEM, noText), -1);

    const ModuleNews told = witness.take().back();
    EXPECT_THAT(told, Told(ModuleEvent::kEnded, "alpha", -1, ModuleReason::kException));
    EXPECT_EQ(told.detail, "flash worn out");
}

TEST_F(Observer, IsToldThatAnUpdateIsLateAndThenHowItEnds)
{
    Gate gate;
    addModule("alpha", Module().needsUpdate().onUpdate(
                           [&](const char* /*path*/, unsigned long /*value*/) { gate.pass(); }));
    startObserved();

    EXPECT_THROW(manager->update_timeout_wrapper(module("alpha"), 0, CALLER_SYSTEM, noText),
                 std::runtime_error);
    ASSERT_TRUE(witness.waitFor(3));
    EXPECT_THAT(witness.take(), UnorderedElementsAre(Told(ModuleEvent::kStarted, "alpha", 0),
                                                     Told(ModuleEvent::kFlashing, "alpha", 0),
                                                     Told(ModuleEvent::kLate, "alpha", 0)));

    gate.open();
    ASSERT_TRUE(witness.waitFor(1));
    EXPECT_THAT(witness.take(), ElementsAre(Told(ModuleEvent::kEnded, "alpha", 0)));
    awaitEndOf("alpha");
}

TEST_F(Observer, ChangesNoLine)
{
    addModule("alpha", Module().upToDate());
    start();
    bool running = true;
    manager->writeFirmwareUpdateList(running);
    const std::vector<std::string> without = fakes::logTexts();
    fakes::clear();
    moduleObserver = &witness;

    manager->writeFirmwareUpdateList(running);

    EXPECT_EQ(fakes::logTexts(), without);
    EXPECT_FALSE(witness.take().empty());
}

}  // namespace
