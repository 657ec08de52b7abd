#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <thread>

#include "captured-stderr.h"
#include "fake-journal.h"
#include "platform/log.h"
#include "platform/privileged.h"

// __extension__ because "%m" is the C library's own, which -Wpedantic minds.
#define LOG(...) __extension__ __dlog_print(2, __VA_ARGS__)

namespace {

using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::Not;
using testing::StartsWith;
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

TEST_F(LogToTheJournal, GivesTheIdOfItsExplanationWithAnErrorThatTheCatalogueKnows)
{
    LOG(6, "FWUPDATE", "%s: %s(%d) > Error: iv is worng", "fw-update-symbol.cpp", "updateUSB", 7);
    LOG(6, "FWUPDATE", "Error: iv is worng");
    EXPECT_THAT(journal.messages, Each(Contains("MESSAGE_ID=90cc154f78964976b383147b04ea5cfb")));
}

TEST_F(LogToTheJournal, GivesNoIdWithAnyOtherMessage)
{
    LOG(6, "FWUPDATE", "%s: %s(%d) > Try something else", "f.cpp", "g", 1);
    LOG(6, "TUNER", "%s: %s(%d) > Error: iv is worng", "tuner.cpp", "doUpdate", 1);
    LOG(6, "FWUPDATE", "%s", "Error: iv is worng");
    EXPECT_THAT(journal.messages, Each(Not(Contains(StartsWith("MESSAGE_ID=")))));
}

TEST_F(LogToTheJournal, GivesNoIdWithTheTextOfAnErrorThatIsNone)
{
    LOG(3, "FWUPDATE", "%s: %s(%d) > Error: dlsym error: %s\n", "f.cpp", "g", 1, "no such entry");
    LOG(6, "FWUPDATE", "%s: %s(%d) > Error: dlsym error: %s\n", "f.cpp", "g", 1, "no such entry");
    EXPECT_THAT(journal.messages,
                ElementsAre(Not(Contains(StartsWith("MESSAGE_ID="))),
                            Contains("MESSAGE_ID=26584469fe9a460aa8fb418ef75f0ed0")));
}

TEST_F(LogToTheJournal, GivesTheIdWithThePlatformsOwnErrors)
{
    int result = 0;
    errno = 0;
    EXPECT_EQ(PS_Umount("/somewhere", 10, 0, &result), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_THAT(journal.messages,
                ElementsAre(AllOf(
                    Contains("SYSLOG_IDENTIFIER=QUILLON-PLATFORM"), Contains("PRIORITY=3"),
                    Contains("CODE_FILE=privileged.cpp"), Contains("CODE_FUNC=ask"),
                    Contains("MESSAGE=PS_Umount: no privileged helper at " QUILLON_PRIVILEGED_SOCKET
                             ": No such file or directory"),
                    Contains("MESSAGE_ID=4d98d28bbc4a42919258597ef16bd14b"))));
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
    EXPECT_TRUE(journal.messages.empty());
    EXPECT_EQ(captured.text(), "T E message\n");
}

TEST_F(LogToTheJournal, IsLookedForWithEachMessageWhileItIsThere)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));  // it may just have been missed
    LOG(6, "T", "first");
    journal.lookedFor = 1;
    LOG(6, "T", "second");
    journal.present = false;
    LOG(6, "T", "third");
    EXPECT_EQ(journal.lookedFor, 3);
    EXPECT_EQ(captured.text(), "T E third\n");
}

TEST_F(LogToTheJournal, IsLookedForOnceASecondWhereItIsMissing)
{
    journal.present = false;
    for (int i = 0; i < 1000; ++i) {
        LOG(6, "T", "message");
    }
    EXPECT_GE(journal.lookedFor, 1);
    EXPECT_LE(journal.lookedFor, 3);

    journal.present = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    LOG(6, "T", "found");
    EXPECT_THAT(journal.messages, ElementsAre(Contains("MESSAGE=found")));
}

}  // namespace
