// What the service keeps of its updates for longer than it lives.

#include "support/run-history.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <list>
#include <sstream>
#include <string>
#include <vector>

#include "base/fd.h"
#include "fw-update-symbol-manager-registry.h"
#include "support/files.h"
#include "support/process.h"
#include "support/record-file.h"
#include "support/run-record.h"
#include "support/texts.h"

namespace {

/// What the disk does in these tests.
struct Disk
{
    int syncs = 0;
    off_t synced = 0;   ///< size of the file that was synced last
    int error = 0;      ///< what a sync fails with
    int linkError = 0;  ///< what a symbolic link fails with
};
Disk disk;

}  // namespace

extern "C" int fdatasync(int file)
{
    ++disk.syncs;
    if (disk.error != 0) {
        errno = disk.error;
        return -1;
    }
    struct stat status = {};
    if (fstat(file, &status) == 0) {
        disk.synced = status.st_size;
    }
    return 0;
}

extern "C" int symlink(const char* target, const char* path) noexcept
{
    if (disk.linkError != 0) {
        errno = disk.linkError;
        return -1;
    }
    return symlinkat(target, AT_FDCWD, path);
}

namespace quillon::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kDirectory = "/var/lib/quillon/history/";
const std::string kFile = std::string(kDirectory) + "history.jsonl";
const std::string kEarlierFile = std::string(kDirectory) + "earlier-history.jsonl";
const std::string kRefusedFile = std::string(kDirectory) + "refused.jsonl";
constexpr double kNeverSlow = 3600;

std::string line(const std::string& event)
{
    return Line().add("event", event).ended();
}

std::vector<std::string> linesOf(const std::string& path)
{
    std::vector<std::string> lines;
    std::istringstream text(readAll(path));
    for (std::string one; std::getline(text, one);) {
        lines.push_back(one);
    }
    return lines;
}

/// A history that is written by hand.
class RunHistories : public ::testing::Test
{
protected:
    RunHistories()
    {
        disk = {};
        fs::create_directories(kDirectory);
    }

    /// A run whose lines so far are on the disk.
    void beginKept(RunHistory& kept)
    {
        kept.begin(line("began"));
        kept.keep();
    }
    void beginKept() { beginKept(history); }

    static void allowFilesOf(rlim_t bytes)
    {
        const rlimit limit = {bytes, RLIM_INFINITY};
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    }

    RunHistory history{kDirectory, kNeverSlow};
};

TEST_F(RunHistories, BringEachLineToTheDiskAtOnce)
{
    beginKept();
    EXPECT_EQ(disk.synced, static_cast<off_t>(fs::file_size(kFile)));
    history.add(line("started"));
    EXPECT_EQ(disk.synced, static_cast<off_t>(fs::file_size(kFile)));
    EXPECT_EQ(disk.syncs, 2);
    history.keep();
    history.end(line("ended"));
    EXPECT_EQ(disk.synced, static_cast<off_t>(fs::file_size(kFile)));
    EXPECT_EQ(disk.syncs, 3);
    EXPECT_FALSE(fs::exists(kRefusedFile));
}

TEST_F(RunHistories, ReachTheDiskOnlyWhenAFlashIsAboutToBegin)
{
    history.begin(line("began"));
    history.add(line("started"));
    EXPECT_TRUE(fs::is_empty(kDirectory));

    history.keep();

    expectTexts(linesOf(kFile), {R"({"event":"began"})", R"({"event":"started"})"});
    EXPECT_EQ(disk.syncs, 1);
}

TEST_F(RunHistories, StayInMemoryUpToALimit)
{
    const std::string large =
        Line().add("detail", std::string(128U << 10U, 'x')).add("event", "finished").ended();
    history.begin(line("began"));
    for (int i = 0; i < 7; ++i) {
        history.add(large);
    }
    EXPECT_FALSE(fs::exists(kFile));
    history.add(large);
    EXPECT_EQ(linesOf(kFile).size(), 9U);
    EXPECT_EQ(disk.syncs, 1);
}

TEST_F(RunHistories, OfRefusedRunsEndALineThatWasCut)
{
    writeFile(kRefusedFile, R"({"event":"sta)");
    history.begin(line("began"));
    history.add(line("started"));
    history.end(line("ended"));
    expectTexts(linesOf(kRefusedFile), {R"({"event":"sta)", R"({"event":"began"})",
                                        R"({"event":"started"})", R"({"event":"ended"})"});
}

TEST_F(RunHistories, OfRefusedRunsFollowNoLink)
{
    writeFile("/run/victim", "untouched");
    fs::create_symlink("/run/victim", kRefusedFile);
    history.begin(line("began"));
    history.add(line("started"));
    history.end(line("ended"));
    EXPECT_EQ(readAll("/run/victim"), "untouched");
}

TEST_F(RunHistories, OfARunThatMissesALineAreKeptAtItsEnd)
{
    history.begin(line("began"));
    history.giveUp();
    history.add(line("finished"));
    history.end(line("ended"));
    beginKept();

    expectTexts(linesOf(kFile), {R"({"event":"began"})", R"({"event":"finished"})",
                                 R"({"event":"began","lost":true})"});
    EXPECT_FALSE(fs::exists(kRefusedFile));
}

TEST_F(RunHistories, ThatMissALineTellTheNextRunThatIsKeptSo)
{
    beginKept();
    history.giveUp();
    history.begin(line("began"));
    history.add(line("started"));
    history.end(line("ended"));
    beginKept();

    expectTexts(linesOf(kFile), {R"({"event":"began"})", R"({"event":"began","lost":true})"});
}

TEST_F(RunHistories, GoOnWhereTheServiceBeforeHasEnded)
{
    beginKept();
    RunHistory next(kDirectory, kNeverSlow);
    beginKept(next);

    expectTexts(linesOf(kFile), {R"({"event":"began"})", R"({"event":"began"})"});
}

TEST_F(RunHistories, EndALineThatWasCut)
{
    writeFile(kFile, R"({"event":"sta)");

    beginKept();

    expectTexts(linesOf(kFile), {R"({"event":"sta)", R"({"event":"began"})"});
}

TEST_F(RunHistories, BecomeTheEarlierOneWhenTheyAreFull)
{
    writeFile(kEarlierFile, "the one before\n");
    writeFile(kFile, std::string((1U << 20U) - 1, 'x') + '\n');

    beginKept();

    expectTexts(linesOf(kFile), {R"({"event":"began"})"});
    EXPECT_EQ(fs::file_size(kEarlierFile), 1U << 20U);
}

TEST_F(RunHistories, StayWhereTheyAreUntilTheyAreFull)
{
    writeFile(kFile, std::string((1U << 20U) - 2, 'x') + '\n');
    beginKept();
    EXPECT_FALSE(fs::exists(kEarlierFile));
    EXPECT_EQ(linesOf(kFile).size(), 2U);
}

TEST_F(RunHistories, GrowNoFurtherInOneRun)
{
    const std::string large =
        Line().add("detail", std::string(400000, 'x')).add("event", "finished").ended();

    beginKept();
    for (int i = 0; i < 10; ++i) {
        history.add(large);
    }

    EXPECT_EQ(linesOf(kFile).size(), 6U);
    EXPECT_LE(fs::file_size(kFile), 2U << 20U);
}

TEST_F(RunHistories, ThatMissALineTellTheNextRunSo)
{
    beginKept();
    history.giveUp();
    history.end(line("ended"));
    beginKept();

    expectTexts(linesOf(kFile), {R"({"event":"began"})", R"({"event":"began","lost":true})"});
}

TEST_F(RunHistories, ThatMissALineTellTheNextRunSoWhereNoLinkCanBeMade)
{
    disk.linkError = ENOSPC;
    beginKept();
    history.giveUp();
    history.end(line("ended"));
    for (int i = 0; i < 2; ++i) {
        beginKept();
        history.end(line("ended"));
    }

    expectTexts(linesOf(kFile),
                {R"({"event":"began"})", R"({"event":"began","lost":true})", R"({"event":"ended"})",
                 R"({"event":"began"})", R"({"event":"ended"})"});
}

TEST_F(RunHistories, WhoseFirstLineFailsTellTheNextRunSo)
{
    disk.error = EIO;
    beginKept();
    disk.error = 0;
    beginKept();

    expectTexts(linesOf(kFile), {R"({"event":"began"})", R"({"event":"began","lost":true})"});
}

TEST_F(RunHistories, ThatMissALineTellThatToReadersAndToTheNextService)
{
    const std::string lost = kDirectory + std::string(kLostLines);
    beginKept();
    EXPECT_FALSE(fs::is_symlink(lost));
    EXPECT_EQ(inChild([this] {
                  allowFilesOf(fs::file_size(kFile) + 5);
                  history.add(line("finished"));
                  return 0;
              }),
              0);
    EXPECT_TRUE(fs::is_symlink(lost));

    RunHistory next(kDirectory, kNeverSlow);
    beginKept(next);
    EXPECT_FALSE(fs::is_symlink(lost));
    expectTexts(linesOf(kFile),
                {R"({"event":"began"})", R"({"eve)", R"({"event":"began","lost":true})"});
}

TEST_F(RunHistories, MakeNoDirectory)
{
    fs::remove_all(kDirectory);
    EXPECT_FALSE(history.hasDirectory());
    beginKept();
    history.end(line("ended"));
    history.begin(line("began"));
    history.add(line("started"));
    history.end(line("ended"));
    EXPECT_FALSE(fs::exists(kDirectory));
}

TEST_F(RunHistories, ThatCannotBeWrittenTellTheNextRunSo)
{
    beginKept();
    EXPECT_EQ(inChild([this] {
                  allowFilesOf(fs::file_size(kFile) + 5);
                  history.add(line("started"));
                  history.end(line("ended"));
                  allowFilesOf(RLIM_INFINITY);
                  beginKept();
                  history.end(line("ended"));
                  beginKept();
                  return 0;
              }),
              0);
    expectTexts(linesOf(kFile),
                {R"({"event":"began"})", R"({"eve)", R"({"event":"began","lost":true})",
                 R"({"event":"ended"})", R"({"event":"began"})"});
}

TEST_F(RunHistories, AreGivenUpForARunWhenTheDiskFails)
{
    beginKept();
    disk.error = EIO;
    history.add(line("started"));
    history.add(line("finished"));
    disk.error = 0;
    history.end(line("ended"));

    expectTexts(linesOf(kFile), {R"({"event":"began"})", R"({"event":"started"})"});
}

TEST_F(RunHistories, WaitForASlowDiskOnceInARun)
{
    RunHistory slow(kDirectory, -1);
    beginKept(slow);
    slow.add(line("started"));
    slow.end(line("ended"));
    EXPECT_EQ(disk.syncs, 1);
    EXPECT_EQ(linesOf(kFile).size(), 3U);

    beginKept(slow);
    EXPECT_EQ(disk.syncs, 2) << "it may be faster in the next run";
}

TEST_F(RunHistories, FollowNoLinkAndWaitForNobody)
{
    writeFile("/run/victim", "untouched");
    for (const char* target : {"/run/victim", "/dev/full", "/dev/null"}) {
        fs::remove(kFile);
        fs::create_symlink(target, kFile);
        beginKept();
        history.end(line("ended"));
        EXPECT_TRUE(fs::is_symlink(kFile));
    }
    EXPECT_EQ(readAll("/run/victim"), "untouched");

    fs::remove(kFile);
    ASSERT_EQ(mkfifo(kFile.c_str(), 0666), 0);
    beginKept();
    const UniqueFd reader(open(kFile.c_str(), O_RDONLY | O_NONBLOCK));
    beginKept();
    char read = 0;
    EXPECT_EQ(::read(reader.get(), &read, 1), 0) << "nobody has written to it";
    EXPECT_EQ(disk.syncs, 0);
}

/// The history of a registry's updates.
class UpdateHistories : public RegistryTest
{
protected:
    UpdateHistories()
    {
        disk = {};
        device.addVerifier();
        fs::create_directories(kDirectory);
    }
    ~UpdateHistories() override { moduleObserver = nullptr; }

    void startWith(const Module& module)
    {
        device.addModule("alpha", module);
        device.stick().addImage("alpha", Image().version("2.0"));
        start();
    }

    void start()
    {
        moduleObserver = &record;
        ASSERT_TRUE(manager->getIsReady(true));
    }

    int estimate() { return manager->getFirmwareUpdateTime(key, device.stick().path(), total_); }
    int update() { return manager->doUpdateUSB(key, device.stick().path()); }

    static void expectEnd(const std::vector<TextRule>& expected)
    {
        std::vector<std::string> lines = linesOf(kFile);
        lines.erase(lines.begin(), lines.end() - static_cast<std::ptrdiff_t>(
                                                     std::min(lines.size(), expected.size())));
        expectTexts(lines, expected);
    }

    RunRecord record{"/nowhere/"};

private:
    int total_ = 0;
};

TEST_F(UpdateHistories, HoldEachModulesBeginAndEnd)
{
    startWith(Module().needsUpdate().takesSeconds(30));
    EXPECT_TRUE(record.isKept());

    EXPECT_EQ(estimate(), 0);
    EXPECT_FALSE(fs::exists(kFile)) << "of a look at a stick, nothing is kept";
    EXPECT_EQ(update(), 0);

    EXPECT_EQ(disk.syncs, 3);
    expectTexts(linesOf(kFile),
                {like(R"({"at":*,"clock":*,"directory":*,"event":"began","pid":*})"),
                 like(R"({"clock":*,"event":"started","module":"alpha","offered":"2.0",)"
                      R"("seconds":30})"),
                 like(R"({"clock":*,"event":"finished","module":"alpha","offered":"2.0",)"
                      R"("result":0,"seconds":30})"),
                 like(R"({"clock":*,"event":"ended","result":0})")});
}

TEST_F(UpdateHistories, NameTheModuleThatWasBeingUpdatedAtTheEnd)
{
    startWith(
        Module().needsUpdate().takesSeconds(30).with("doUpdate_decryption", fakes::Effect::Crash));
    estimate();

    EXPECT_EQ(inChild([this] { return update(); }), -SIGABRT);

    expectEnd({like(R"({*"event":"started","module":"alpha","offered":"2.0","seconds":30})")});
}

TEST_F(UpdateHistories, NameNoModuleThatWasNotFlashedYet)
{
    int asked = 0;
    startWith(Module().onCheckVersion([&](const char* /*version*/, int* need) {
        if (++asked == 2) {
            abort();
        }
        *need = 1;
        return 0;
    }));
    estimate();

    EXPECT_EQ(inChild([this] { return update(); }), -SIGABRT);

    EXPECT_TRUE(fs::is_empty(kDirectory));
}

TEST_F(UpdateHistories, TellWhyAnUpdateFailed)
{
    startWith(Module().needsUpdate().returning("doUpdate_decryption", 5));
    estimate();

    EXPECT_EQ(update(), 5);

    expectEnd({like(R"({*"event":"finished",*"reason":"update-failed","result":5*})"),
               like(R"({*"event":"ended","result":5})")});
}

TEST_F(UpdateHistories, KeepNoDescriptorThatAModuleCouldClose)
{
    const auto descriptors = [] {
        const fs::directory_iterator all("/proc/self/fd");
        return std::distance(begin(all), end(all));
    };
    startWith(Module().needsUpdate());
    estimate();
    const auto before = descriptors();
    EXPECT_EQ(update(), 0);
    EXPECT_EQ(descriptors(), before);
    EXPECT_EQ(linesOf(kFile).size(), 4U);
}

TEST_F(UpdateHistories, FailNoUpdateWhenTheDiskFails)
{
    startWith(Module().needsUpdate());
    estimate();
    disk.error = EIO;
    EXPECT_EQ(update(), 0);
    EXPECT_EQ(linesOf(kFile).size(), 2U);
}

TEST_F(UpdateHistories, HoldNothingOfARunWithoutAModule)
{
    startWith(Module().needsUpdate());
    for (int i = 0; i < 300; ++i) {
        EXPECT_EQ(update(), -1);
    }
    EXPECT_TRUE(fs::is_empty(kDirectory));
    EXPECT_EQ(disk.syncs, 0);
}

TEST_F(UpdateHistories, OutlastAFloodOfRefusedRuns)
{
    startWith(Module().needsUpdate());
    estimate();
    EXPECT_EQ(update(), 0);
    const std::string updates = readAll(kFile);
    disk = {};

    fs::remove(device.stick().imagePath("alpha"));
    for (int i = 0; i < 500; ++i) {
        EXPECT_EQ(update(), -1);
    }

    EXPECT_TRUE(readAll(kFile) == updates);
    EXPECT_FALSE(fs::exists(kEarlierFile));
    EXPECT_EQ(disk.syncs, 0);
    EXPECT_LE(readAll(kRefusedFile).size(), 64U << 10U);
    const std::vector<std::string> refused = linesOf(kRefusedFile);
    ASSERT_GE(refused.size(), 4U);
    expectTexts({refused.end() - 4, refused.end()},
                {like(R"({*"event":"began"*})"), like(R"({*"event":"started","module":"alpha"*})"),
                 like(R"({*"event":"finished",*"reason":"no-image","result":-1*})"),
                 like(R"({*"event":"ended","result":-1})")});
}

TEST_F(UpdateHistories, AreNotKeptWithoutTheirDirectory)
{
    fs::remove_all(kDirectory);
    EXPECT_FALSE(record.isKept());
    startWith(Module().needsUpdate());
    estimate();
    EXPECT_EQ(update(), 0);
    EXPECT_FALSE(fs::exists(kDirectory));
}

}  // namespace
}  // namespace quillon::test
