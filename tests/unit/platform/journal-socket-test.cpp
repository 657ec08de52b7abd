#include "unit/platform/journal-socket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "captured-stderr.h"
#include "platform/log.h"

#define LOG(...) __dlog_print(2, __VA_ARGS__)

namespace {

using testing::ElementsAre;
using testing::Pair;
using testing::UnorderedElementsAre;

/// What the journal's own client library sends.
class JournalOnItsSocket : public testing::Test
{
protected:
    void SetUp() override
    {
        if (!JournalSocket::available()) {
            GTEST_SKIP() << "this machine's own journal has the socket";
        }
        journal.emplace();
    }

    std::optional<JournalSocket> journal;
    CapturedStderr captured;
};

TEST_F(JournalOnItsSocket, ReceivesEachFieldOnceAndNoneOfTheLibrarysOwn)
{
    LOG(6, "FWUPDATE", "%s: %s(%d) > Error: %s has no plug-in", "fw-update-symbol.cpp", "updateUSB",
        42, "tuner");
    EXPECT_THAT(journal->take(), ElementsAre(UnorderedElementsAre(
                                     Pair("MESSAGE", "Error: tuner has no plug-in"),
                                     Pair("PRIORITY", "3"), Pair("SYSLOG_IDENTIFIER", "FWUPDATE"),
                                     Pair("CODE_FILE", "fw-update-symbol.cpp"),
                                     Pair("CODE_FUNC", "updateUSB"), Pair("CODE_LINE", "42"),
                                     Pair("MESSAGE_ID", "ec4a0f0ed54b49f5908233a5c0780b3d"))));
    EXPECT_EQ(captured.text(), "");
}

TEST_F(JournalOnItsSocket, ReceivesNewlinesAsTheyAreWithoutMistakingThemForFields)
{
    LOG(6, "T", "%s", "first\nPRIORITY=0\nlast");
    EXPECT_THAT(journal->take(), ElementsAre(UnorderedElementsAre(
                                     Pair("MESSAGE", "first\nPRIORITY=0\nlast"),
                                     Pair("PRIORITY", "3"), Pair("SYSLOG_IDENTIFIER", "T"))));
}

TEST_F(JournalOnItsSocket, ReceivesAMessageThatIsLargerThanAnyDatagram)
{
    std::string text;
    text.resize(20'000'000, 'x');
    EXPECT_EQ(LOG(6, "T", "%s", text.c_str()), static_cast<int>(text.size()));
    const std::vector<JournalEntry> entries = journal->take();
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_TRUE(entries[0].at("MESSAGE") == text);
    EXPECT_EQ(captured.text(), "");
}

TEST_F(JournalOnItsSocket, IsReplacedByStandardErrorForAsLongAsNobodyListens)
{
    journal->crash();
    EXPECT_GE(LOG(6, "T", "to standard error"), 0);
    EXPECT_EQ(captured.text(), "T E to standard error\n");
    captured.clear();

    journal.reset();
    journal.emplace();
    EXPECT_GE(LOG(6, "T", "to the journal"), 0);
    EXPECT_EQ(captured.text(), "");
    EXPECT_THAT(journal->take(), ElementsAre(testing::Contains(Pair("MESSAGE", "to the journal"))));
}

}  // namespace
