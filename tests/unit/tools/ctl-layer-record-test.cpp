// What a control layer records of its updates, and keeps of them. Where an event is lost, a record
// with an end lacks no line.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>

#include "support/files.h"
#include "tools/quillonctl/modules/module-events.h"

namespace {

using namespace quillon;
using quillon::test::readAll;
using quillon::test::writeFile;

namespace fs = std::filesystem;

const std::string kLayers = "/var/lib/quillon/history/modules/";

class CtlLayerRecord : public testing::Test
{
protected:
    CtlLayerRecord()
    {
        fs::create_directories("/run/quillon/run");
        fs::create_directories("/var/lib/quillon/history");
        events.keepRecord();
        events.hearRun({RunEvent::kUpdateBegan, "system"});
    }

    static bool isKept()
    {
        return fs::exists("/run/quillon/run/modules/" + std::to_string(getpid()) + "/update.jsonl");
    }

    /// What this process has kept, line for line.
    static std::string kept()
    {
        for (const fs::directory_entry& entry : fs::directory_iterator(kLayers)) {
            const std::string name = entry.path().filename();
            if (name.substr(name.find('-') + 1) == std::to_string(getpid())) {
                return readAll(entry.path() / "history.jsonl");
            }
        }
        return "";
    }

    /// How many of programs that have ended.
    static long updatesKept()
    {
        return std::count_if(fs::directory_iterator(kLayers), fs::directory_iterator(),
                             [](const fs::directory_entry& entry) {
                                 const std::string name = entry.path().filename();
                                 return name.substr(name.find('-') + 1) != std::to_string(getpid());
                             });
    }

    /// Keeps an update of a program that has ended.
    static void keepEnded(int at, const std::string& lines)
    {
        static const pid_t kEnded = [] {
            const pid_t child = fork();
            if (child == 0) {
                _exit(0);
            }
            waitpid(child, nullptr, 0);
            return child;
        }();
        const std::string directory =
            kLayers + std::to_string(at) + "-" + std::to_string(kEnded) + "/";
        fs::create_directories(directory);
        if (!lines.empty()) {
            writeFile(directory + "history.jsonl", lines);
        }
    }

    ModuleEvents& events = ModuleEvents::instance();
};

TEST_F(CtlLayerRecord, IsKeptWhileEverythingIsHeard)
{
    events.hear({ModuleEvent::kStarted, "alpha"});

    EXPECT_TRUE(isKept());
}

TEST_F(CtlLayerRecord, IsInTheHistoryOnceAPlugInIsAskedToInstall)
{
    events.hear({ModuleEvent::kStarted, "alpha"});
    EXPECT_EQ(kept(), "");

    events.hear({ModuleEvent::kFlashing, "alpha"});
    EXPECT_NE(kept().find("\"started\""), std::string::npos);

    events.hear({ModuleEvent::kEnded, "alpha"});
    EXPECT_NE(kept().find("\"finished\""), std::string::npos);
}

TEST_F(CtlLayerRecord, IsInNoHistoryWhereTheServiceKeepsNone)
{
    fs::remove_all("/var/lib/quillon/history");
    events.keepRecord();
    events.hearRun({RunEvent::kUpdateBegan, "system"});
    events.hear({ModuleEvent::kFlashing, "alpha"});

    EXPECT_TRUE(isKept());
    EXPECT_FALSE(fs::exists("/var/lib/quillon/history"));
}

TEST_F(CtlLayerRecord, LeavesOnlyTheLatestUpdatesInTheHistory)
{
    for (int at = 1; at <= 205; ++at) {
        keepEnded(at, "{}\n");
    }
    events.keepRecord();

    EXPECT_EQ(updatesKept(), 200);
    const auto isThere = [](int at) {
        for (const fs::directory_entry& entry : fs::directory_iterator(kLayers)) {
            if (std::stoi(entry.path().filename()) == at) {
                return true;
            }
        }
        return false;
    };
    EXPECT_FALSE(isThere(5));
    EXPECT_TRUE(isThere(6));
    EXPECT_TRUE(isThere(205));
}

TEST_F(CtlLayerRecord, LeavesNoMoreThanTwoMebibytesInTheHistory)
{
    keepEnded(1, "{}\n");
    keepEnded(2, std::string(std::size_t{2} << 20U, ' '));
    events.keepRecord();
    EXPECT_EQ(updatesKept(), 1) << "the large one";
    keepEnded(3, "{}\n");

    events.keepRecord();

    EXPECT_EQ(updatesKept(), 1) << "the new one";
}

TEST_F(CtlLayerRecord, TakesAwayWhatHoldsNothingUnlessItsProgramLives)
{
    keepEnded(7, "");
    fs::create_directories(kLayers + "8-" + std::to_string(getppid()));

    events.keepRecord();

    for (const fs::directory_entry& entry : fs::directory_iterator(kLayers)) {
        EXPECT_NE(std::stoi(entry.path().filename()), 7);
    }
    EXPECT_TRUE(fs::exists(kLayers + "8-" + std::to_string(getppid())));
}

TEST_F(CtlLayerRecord, IsGivenUpWhenAnEventOfAModuleIsLost)
{
    events.miss(ModuleEvent::kStarted);

    EXPECT_FALSE(isKept());
}

TEST_F(CtlLayerRecord, IsGivenUpWhenTheEndIsLost)
{
    events.missRun(RunEvent::kUpdateEnded);

    EXPECT_FALSE(isKept());
}

TEST_F(CtlLayerRecord, IsGivenUpWhenThereIsNoMemoryForALine)
{
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "a sanitizer needs more address space than is left here";
#endif
    const ModuleNews news{ModuleEvent::kStarted, std::string(std::size_t{64} << 20U, 'a')};
    rlimit before = {};
    ASSERT_EQ(getrlimit(RLIMIT_AS, &before), 0);
    std::size_t used = 0;
    ASSERT_TRUE(std::ifstream("/proc/self/statm") >> used);
    rlimit tight = before;
    tight.rlim_cur = (used + 256) * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));

    ASSERT_EQ(setrlimit(RLIMIT_AS, &tight), 0);
    static_cast<void>(unnoticed([&] { events.hear(news); }));
    ASSERT_EQ(setrlimit(RLIMIT_AS, &before), 0);

    EXPECT_FALSE(isKept());
}

}  // namespace
