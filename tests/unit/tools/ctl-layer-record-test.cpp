// What a control layer records where an event is lost: a record with an end lacks no line.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "tools/quillonctl/modules/module-events.h"

namespace {

using namespace quillon;

class CtlLayerRecord : public testing::Test
{
protected:
    CtlLayerRecord()
    {
        std::filesystem::create_directories("/run/quillon/run");
        events.keepRecord();
        events.hearRun({RunEvent::kUpdateBegan, "system"});
    }

    static bool isKept()
    {
        return std::filesystem::exists("/run/quillon/run/modules/" + std::to_string(getpid()) +
                                       "/update.jsonl");
    }

    ModuleEvents& events = ModuleEvents::instance();
};

TEST_F(CtlLayerRecord, IsKeptWhileEverythingIsHeard)
{
    events.hear({ModuleEvent::kStarted, "alpha"});

    EXPECT_TRUE(isKept());
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
