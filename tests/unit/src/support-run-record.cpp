// What the service writes down of its start, its estimates and its updates, for other programs.

#include "support/run-record.h"

#include <json/json.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <list>
#include <new>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "fw-update-symbol-manager-registry.h"
#include "support/files.h"
#include "support/module-reason.h"
#include "support/process.h"
#include "support/texts.h"

namespace quillon::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kRecords = "/run/records/";

/// The lines of a record, each without the times and the process in it.
std::vector<std::string> linesIn(const std::string& name)
{
    std::vector<std::string> lines;
    std::istringstream text(readAll(kRecords + name));
    for (std::string line; std::getline(text, line);) {
        Json::Value value;
        std::istringstream(line) >> value;
        for (const char* changing : {"clock", "at", "pid"}) {
            value.removeMember(changing);
        }
        Json::StreamWriterBuilder style;
        style["indentation"] = "";
        lines.push_back(Json::writeString(style, value));
    }
    return lines;
}

class RunRecords : public RegistryTest
{
protected:
    RunRecords()
    {
        device.addVerifier();
        fs::create_directories(kRecords);
    }
    ~RunRecords() override { moduleObserver = nullptr; }

    RunRecord& observe()
    {
        moduleObserver = &*records_.emplace(records_.end(), kRecords);
        return records_.back();
    }

    void start()
    {
        observe();
        ASSERT_TRUE(manager->getIsReady(true));
    }

    void startWith(const Module& module)
    {
        device.addModule("alpha", module);
        device.stick().addImage("alpha", Image().version("2.0"));
        start();
    }

    int estimate() { return manager->getFirmwareUpdateTime(key, device.stick().path(), total); }
    int update() { return manager->doUpdateUSB(key, device.stick().path()); }

    static void tellOf(RunRecord& record, const std::string& detail)
    {
        record.hear({ModuleEvent::kLoaded, "alpha", -1, ModuleReason::kNotLoadable, detail});
    }

    std::list<RunRecord> records_;
    const std::string began =
        R"({"directory":")" + device.stick().directory() + R"(","event":"began"})";
    int total = 0;
};

TEST_F(RunRecords, OfTheStartTellWhichModulesAreLoadedAndWhetherThereIsAKey)
{
    device.addModule("alpha", Module().lacking("checkVersion"));

    RunRecord& record = observe();
    ASSERT_TRUE(manager->getIsReady(true));
    EXPECT_EQ(linesIn("start.jsonl").size(), 3U) << "what comes next may end the service";
    record.serving(true);

    expectTexts(linesIn("start.jsonl"),
                {R"({"event":"began"})", R"({"event":"loading","module":"alpha"})",
                 R"({"detail":"checkVersion","event":"loaded","module":"alpha",)"
                 R"("reason":"no-entry","result":-1,"seconds":0})",
                 R"({"event":"serving","key":true})"});
}

TEST_F(RunRecords, OfAnEstimateTellWhatIsOfferedAndHowLongItTakes)
{
    startWith(Module().needsUpdate().takesSeconds(30));

    EXPECT_EQ(estimate(), 0);

    expectTexts(linesIn("estimate.jsonl"),
                {began, R"({"event":"checking","module":"alpha"})",
                 R"({"event":"decided","module":"alpha","offered":"2.0","result":1,"seconds":30})",
                 R"({"event":"ended","result":0})"});
}

TEST_F(RunRecords, OfAnEstimateTellWhyAModuleIsNotUpdated)
{
    startWith(Module().upToDate().takesSeconds(30));
    EXPECT_EQ(estimate(), -1);
    expectTextAmong(linesIn("estimate.jsonl"), like(R"(*"reason":"up-to-date"*)"));

    fs::remove(device.stick().imagePath("alpha"));
    EXPECT_EQ(estimate(), -1);
    expectTextAmong(linesIn("estimate.jsonl"), like(R"(*"reason":"no-image"*)"));
    EXPECT_EQ(linesIn("estimate.jsonl").size(), 4U) << "the record of the estimate before is gone";
}

TEST_F(RunRecords, OfAnEstimateTellWhatKeepsAnImageFromBeingOpened)
{
    startWith(Module().needsUpdate().takesSeconds(30));
    const std::string image = device.stick().imagePath("alpha");
    fs::remove(image);
    fs::create_symlink(image, image);
    EXPECT_EQ(estimate(), -1);
    expectTextAmong(linesIn("estimate.jsonl"),
                    like(R"(*"detail":"Too many levels of symbolic links"*"reason":"no-image"*)"));

    fs::remove(image);
    fs::create_directory(image);
    EXPECT_EQ(estimate(), -1);
    expectTextAmong(linesIn("estimate.jsonl"),
                    like(R"(*"detail":"it is no regular file"*"reason":"no-image"*)"));
}

TEST_F(RunRecords, CutALongDetail)
{
    RunRecord& record = observe();
    tellOf(record, std::string(100000, 'x'));
    record.serving(false);

    const std::size_t size = readAll(kRecords + std::string("start.jsonl")).size();
    EXPECT_GT(size, 4096U);
    EXPECT_LT(size, 5000U);
}

TEST_F(RunRecords, TellThatAVersionIsNoText)
{
    device.addModule("alpha", Module().returning("checkVersion", -1));
    device.stick().addImage("alpha", Image().version("\x80\x01"
                                                     "garbage"));
    start();

    estimate();

    expectTextAmong(linesIn("estimate.jsonl"), like(R"(*"offered":null,"reason":"check-failed"*)"));
}

TEST_F(RunRecords, OfAnUpdateTellHowEachModuleFared)
{
    startWith(Module().needsUpdate().takesSeconds(30));
    estimate();

    EXPECT_EQ(update(), 0);

    expectTexts(linesIn("update.jsonl"),
                {began, R"({"event":"started","module":"alpha","offered":"2.0","seconds":30})",
                 R"({"event":"finished","module":"alpha","offered":"2.0","result":0,"seconds":30})",
                 R"({"event":"ended","result":0})"});
}

TEST_F(RunRecords, OfAnUpdateThatFailsTellWhoHasFailed)
{
    startWith(Module().needsUpdate().takesSeconds(30).returning("doUpdate_decryption", 5));
    estimate();

    EXPECT_EQ(update(), 5);

    expectTextAmong(linesIn("update.jsonl"),
                    like(R"({"event":"finished",*"reason":"update-failed","result":5*)"));
}

TEST_F(RunRecords, OfAnUpdateThatRaisesAreEnded)
{
    startWith(Module().needsUpdate().throwing("doUpdate_decryption"));
    estimate();

    EXPECT_THROW(update(), std::exception);

    expectText(linesIn("update.jsonl").back(), R"({"event":"ended","result":-1})");
}

TEST_F(RunRecords, NameTheModuleThatTheServiceHasDiedIn)
{
    startWith(Module().needsUpdate().with("checkVersion", fakes::Effect::Crash));

    EXPECT_EQ(inChild([this] { return estimate(); }), -SIGABRT);

    expectText(linesIn("estimate.jsonl").back(), R"({"event":"checking","module":"alpha"})");
}

TEST_F(RunRecords, NameTheModuleThatWasBeingLoadedWhenTheServiceDied)
{
    device.addModule("alpha", Module().with("setContext", fakes::Effect::Crash));
    observe();

    EXPECT_EQ(inChild([this] { return manager->getIsReady(true); }), -SIGABRT);

    expectTexts(linesIn("start.jsonl"),
                {R"({"event":"began"})", R"({"event":"loading","module":"alpha"})"});
    EXPECT_EQ(readAll(kRecords + std::string("start.jsonl")).back(), '\n')
        << "without it, readers would take the line for one that was cut";
}

TEST_F(RunRecords, OfAStartHaveALineForEachStepAtAnyTime)
{
    constexpr int kModules = 80;  // of more than two pages
    RunRecord& record = observe();
    std::vector<std::string> expected = {R"({"event":"began"})"};
    for (int i = 0; i < kModules; ++i) {
        const std::string name = "module" + std::to_string(i);
        record.hear({ModuleEvent::kLoading, name});
        expected.push_back(R"({"event":"loading","module":")" + name + R"("})");
        ASSERT_EQ(linesIn("start.jsonl"), expected);
        record.hear({ModuleEvent::kLoaded, name});
        expected.push_back(R"({"event":"loaded","module":")" + name +
                           R"(","result":0,"seconds":0})");
    }
    record.hearRun({RunEvent::kModulesLoaded, ""});

    EXPECT_EQ(linesIn("start.jsonl"), expected);
    const std::string text = readAll(kRecords + std::string("start.jsonl"));
    EXPECT_EQ(text.substr(text.size() - 2), "}\n") << "no blanks are left behind the last line";
}

TEST_F(RunRecords, OfAnotherUserMayBeShortenedAtAnyTime)
{
    constexpr uid_t kUser = 1234;
    RunRecord& record = observe();
    const std::string path = kRecords + std::string("start.jsonl");
    if (chown(path.c_str(), kUser, kUser) != 0) {
        GTEST_SKIP() << "there is only one user here";
    }
    record.hear({ModuleEvent::kLoading, "alpha"});
    expectTexts(linesIn("start.jsonl"),
                {R"({"event":"began"})", R"({"event":"loading","module":"alpha"})"});
    EXPECT_EQ(readAll(path).find(' '), std::string::npos);

    fs::resize_file(path, 0);
    record.hear({ModuleEvent::kLoaded, "alpha"});
    record.hear({ModuleEvent::kLoading, "beta"});

    expectTexts(linesIn("start.jsonl"),
                {R"({"event":"loaded","module":"alpha","result":0,"seconds":0})",
                 R"({"event":"loading","module":"beta"})"});
}

TEST_F(RunRecords, OfAStartAreGivenUpWhenTheDiskIsFull)
{
    RunRecord& record = observe();
    signal(SIGXFSZ, SIG_IGN);
    const rlimit few = {200, RLIM_INFINITY};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &few), 0);

    record.hear({ModuleEvent::kLoading, "alpha"});
    record.hear({ModuleEvent::kLoaded, "alpha"});
    record.hear({ModuleEvent::kLoading, "beta"});

    EXPECT_FALSE(fs::exists(kRecords + std::string("start.jsonl")));
}

TEST_F(RunRecords, OfAnEarlierStartStay)
{
    observe();
    expectTexts(linesIn("earlier-start.jsonl"), {});
    observe().serving(false);
    observe();
    expectText(linesIn("earlier-start.jsonl").back(), R"({"event":"serving","key":false})");
}

TEST_F(RunRecords, KeepNoDescriptorThatAModuleCouldClose)
{
    const auto descriptors = [] {
        const fs::directory_iterator all("/proc/self/fd");
        return std::distance(begin(all), end(all));
    };
    device.addModule("alpha", Module().needsUpdate().takesSeconds(30));
    device.stick().addImage("alpha", Image());
    ASSERT_TRUE(manager->getIsReady(true));
    const auto before = descriptors();

    observe().hear({ModuleEvent::kLoading, "alpha"});
    EXPECT_EQ(descriptors(), before);
    estimate();
    update();

    EXPECT_EQ(descriptors(), before);
    EXPECT_EQ(linesIn("update.jsonl").size(), 4U);
}

// For a destructor, the C++ library needs memory when a thread first uses an object, and ends the
// process where there is none.
TEST(ThreadsNotes, NeedNoMemory)
{
    EXPECT_TRUE(std::is_trivially_destructible_v<decltype(moduleReason)>);
    EXPECT_TRUE(std::is_trivially_destructible_v<decltype(moduleReasonDetail)>);
    EXPECT_TRUE(std::is_trivially_destructible_v<decltype(offeredVersion)>);
}

TEST_F(RunRecords, FailNothingWhenMemoryRunsOut)
{
    struct OutOfMemory final : ModuleObserver
    {
        void hear(const ModuleNews& /*news*/) override { throw std::bad_alloc(); }
        void hearRun(const RunNews& /*news*/) override { throw std::bad_alloc(); }
        void miss(ModuleEvent /*event*/) noexcept override { errno = ++missed; }
        void missRun(RunEvent /*event*/) noexcept override { errno = ++missedOfRuns; }
        int missed = 0;
        int missedOfRuns = 0;
    } observer;
    device.addModule("alpha", Module().needsUpdate().takesSeconds(30));
    device.stick().addImage("alpha", Image());
    moduleObserver = &observer;

    ASSERT_TRUE(manager->getIsReady(true));
    EXPECT_EQ(estimate(), 0);
    EXPECT_EQ(update(), 0);
    errno = ETOOMANYREFS;
    {
        const ToldRun run(RunEvent::kUpdateBegan, RunEvent::kUpdateEnded, "/media/");
        tell(ModuleEvent::kStarted, FWUpdateSymbol("alpha"));
        tellFlashing("alpha");
    }
    EXPECT_EQ(errno, ETOOMANYREFS);
    moduleObserver = nullptr;
    EXPECT_EQ(observer.missed - 2, 7)
        << "loading, checking and updating, each its beginning and end, "
           "and that the plug-in is asked to update";
    EXPECT_EQ(observer.missedOfRuns - 2, 5)
        << "the loading, and two runs, each its beginning and end";
}

TEST_F(RunRecords, AreGoneAfterAnEventThatWasMissed)
{
    RunRecord& record = observe();
    for (const auto& [name, missed] : std::map<std::string, ModuleEvent>{
             {"estimate.jsonl", ModuleEvent::kDecided}, {"update.jsonl", ModuleEvent::kEnded}}) {
        const bool isUpdate = missed == ModuleEvent::kEnded;
        record.hearRun({isUpdate ? RunEvent::kUpdateBegan : RunEvent::kEstimateBegan, "/media/"});
        record.miss(missed);
        record.hearRun({isUpdate ? RunEvent::kUpdateEnded : RunEvent::kEstimateEnded, "/media/"});
        EXPECT_FALSE(fs::exists(kRecords + name));
    }
    record.hearRun({RunEvent::kUpdateBegan, "/media/"});
    record.missRun(RunEvent::kUpdateBegan);
    record.hearRun({RunEvent::kUpdateEnded, "/media/"});
    EXPECT_FALSE(fs::exists(kRecords + std::string("update.jsonl")));

    record.missRun(RunEvent::kModulesLoaded);
    record.serving(true);
    EXPECT_FALSE(fs::exists(kRecords + std::string("start.jsonl")));
}

TEST_F(RunRecords, CanBeReadByEverybody)
{
    umask(0077);
    start();
    struct stat status = {};
    ASSERT_EQ(stat((kRecords + std::string("start.jsonl")).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0644U);
}

TEST_F(RunRecords, FollowNoLink)
{
    writeFile("/run/victim", "untouched");
    for (const char* name : {".start.new", "start.jsonl"}) {
        fs::create_symlink("/run/victim", kRecords + std::string(name));
    }

    start();

    EXPECT_EQ(readAll("/run/victim"), "untouched");
    EXPECT_EQ(linesIn("start.jsonl").size(), 1U);
}

TEST_F(RunRecords, ThatCannotBeWrittenAreGivenUp)
{
    startWith(Module().needsUpdate().takesSeconds(30));
    const rlimit few = {200, RLIM_INFINITY};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &few), 0);

    EXPECT_EQ(estimate(), 0);

    EXPECT_EQ(total, 30);
    EXPECT_FALSE(fs::exists(kRecords + std::string("estimate.jsonl")));
}

TEST_F(RunRecords, AreNotKeptWithoutTheirDirectory)
{
    fs::remove_all(kRecords);
    EXPECT_FALSE(RunRecord(kRecords).isKept());
    EXPECT_FALSE(fs::exists(kRecords));
}

TEST_F(RunRecords, LeaveErrnoAlone)
{
    RunRecord& record = observe();
    fs::remove_all(kRecords);
    errno = ETOOMANYREFS;
    {
        const ToldRun run(RunEvent::kUpdateBegan, RunEvent::kUpdateEnded, "/media/");
        tell(ModuleEvent::kStarted, FWUpdateSymbol("alpha"));
        record.serving(true);
    }
    EXPECT_EQ(errno, ETOOMANYREFS);
}

TEST_F(RunRecords, HaveACodeForEveryReason)
{
    for (int reason = 0; reason <= static_cast<int>(ModuleReason::kException); ++reason) {
        const auto one = static_cast<ModuleReason>(reason);
        EXPECT_EQ(reasonOf(codeOf(one)), one) << codeOf(one);
    }
    EXPECT_EQ(reasonOf("no such code"), ModuleReason::kNone);
}

}  // namespace
}  // namespace quillon::test
