// One log statement goes to the log and to the trace.

#include "support/log.h"

#include <cerrno>
#include <string>

#include "support/device-fixture.h"

namespace quillon::test {
namespace {

using namespace fakes;

class LogStatement : public DeviceTest
{
};

TEST_F(LogStatement, GoesOutTwiceWithItsPlaceInTheCode)
{
    const int line = __LINE__ + 1;
    FW_LOGE("Error: %s %d\n", "text", 7);

    const std::vector<Entry> entries = wholeTimeline();
    ASSERT_EQ(entries.size(), 2U);
    EXPECT_EQ(entries[0].kind, Kind::Log);
    EXPECT_EQ(entries[1].kind, Kind::Trace);
    for (const Entry& entry : entries) {
        EXPECT_EQ(entry.priority, 6);
        EXPECT_EQ(entry.file, "support-log.cpp");
        EXPECT_EQ(entry.function, "TestBody");
        EXPECT_EQ(entry.line, line);
        EXPECT_EQ(entry.text, "Error: text 7\n");
    }
}

TEST_F(LogStatement, HasThreePriorities)
{
    FW_LOGD("debug");
    FW_LOGI("info");
    FW_LOGE("error");

    expectSteps({Log(3, "debug"), Log(4, "info"), Log(6, "error")});
}

TEST_F(LogStatement, EvaluatesItsArgumentsOnce)
{
    int count = 0;

    FW_LOGI("%d", ++count);

    EXPECT_EQ(count, 1);
    expectTexts(logTexts(), {"1"});
}

// The recording platform spoils errno each time.
TEST_F(LogStatement, BothReceiversSeeErrnoAndTheCallerKeepsIt)
{
    errno = ENOSPC;

    FW_LOGE("failed: %m");

    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(wholeTimeline()[0].text, "failed: No space left on device");
    EXPECT_EQ(wholeTimeline()[1].text, "failed: No space left on device");
}

TEST(BaseName, IsWhatStandsBehindTheLastSlash)
{
    EXPECT_STREQ(log::baseName("/src/src/fw-update-symbol.cpp"), "fw-update-symbol.cpp");
    EXPECT_STREQ(log::baseName("fw-update-symbol.cpp"), "fw-update-symbol.cpp");
    EXPECT_STREQ(log::baseName("directory/"), "");
}

}  // namespace
}  // namespace quillon::test
