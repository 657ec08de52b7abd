#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "captured-stderr.h"
#include "fake-journal.h"
#include "platform/log.h"

// __extension__ because "%m" is the C library's own, which -Wpedantic minds.
#define LOG(...) __extension__ __dlog_print(2, __VA_ARGS__)

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class LogToTheJournal : public testing::Test
{
protected:
    LogToTheJournal() { journal.present = true; }

    FakeJournal& journal = fakeJournal();
    CapturedStderr captured;
};

TEST_F(LogToTheJournal, GivesThePlaceAsFieldsOfTheirOwn)
{
    EXPECT_GE(LOG(6, "FWUPDATE", "%s: %s(%d) > message %d\n", "quillon-service.cpp",
                  "service_start", 42, 7),
              0);
    EXPECT_THAT(journal.messages,
                ElementsAre(UnorderedElementsAre(
                    "MESSAGE=message 7", "PRIORITY=3", "SYSLOG_IDENTIFIER=FWUPDATE",
                    "CODE_FILE=quillon-service.cpp", "CODE_FUNC=service_start", "CODE_LINE=42")));
    EXPECT_EQ(captured.text(), "");
}

TEST_F(LogToTheJournal, ClaimsNoPlaceForAMessageWithoutOne)
{
    LOG(4, "T", "message");
    EXPECT_THAT(journal.messages, ElementsAre(UnorderedElementsAre("MESSAGE=message", "PRIORITY=6",
                                                                   "SYSLOG_IDENTIFIER=T")));
}

TEST_F(LogToTheJournal, TranslatesThePriorities)
{
    for (int priority = 2; priority <= 8; ++priority) {
        LOG(priority, "T", "m");
    }
    EXPECT_THAT(journal.messages,
                ElementsAre(Contains("PRIORITY=7"), Contains("PRIORITY=7"), Contains("PRIORITY=6"),
                            Contains("PRIORITY=4"), Contains("PRIORITY=3"), Contains("PRIORITY=2"),
                            Contains("PRIORITY=6")));
}

TEST_F(LogToTheJournal, KeepsErrnoForPercentMAndForTheCaller)
{
    errno = ENOTDIR;
    LOG(6, "T", "failed: %m");
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_THAT(journal.messages, ElementsAre(Contains("MESSAGE=failed: Not a directory")));
}

TEST_F(LogToTheJournal, CutsNoMessage)
{
    const std::string message(200000, 'x');
    LOG(6, "T", "%s", message.c_str());
    EXPECT_THAT(journal.messages, ElementsAre(Contains("MESSAGE=" + message)));
}

TEST_F(LogToTheJournal, FallsBackToStandardErrorWhenTheJournalRefuses)
{
    journal.result = -ECONNREFUSED;
    EXPECT_GE(LOG(6, "T", "message"), 0);
    EXPECT_GE(LOG(6, "T", "%s: %s(%d) > message", "f.cpp", "g", 1), 0);
    EXPECT_EQ(captured.text(), "T E message\nT E f.cpp: g(1) > message\n");
}

TEST_F(LogToTheJournal, FallsBackToStandardErrorWhereThereIsNone)
{
    journal.present = false;
    LOG(6, "T", "message");
    EXPECT_THAT(journal.messages, IsEmpty());
    EXPECT_EQ(captured.text(), "T E message\n");
}

}  // namespace
