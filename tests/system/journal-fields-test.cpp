#include <gmock/gmock.h>
#include <algorithm>
#include <optional>

#include "system/system-test.h"
#include "unit/platform/journal-socket.h"

namespace quillon::test {
namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::Each;
using ::testing::Key;
using ::testing::MatchesRegex;
using ::testing::Pair;

/// What the shipped daemon writes into a journal.
class JournalFields : public SystemTest
{
protected:
    void SetUp() override
    {
        if (!JournalSocket::available()) {
            GTEST_SKIP() << "this machine's own journal has the socket";
        }
        SystemTest::SetUp();
        journal_.emplace();
    }

    /// The entries so far.
    const std::vector<JournalEntry>& entries()
    {
        const std::vector<JournalEntry> more = journal_->take(0);
        entries_.insert(entries_.end(), more.begin(), more.end());
        return entries_;
    }

    std::optional<JournalEntry> entry(const std::string& message)
    {
        std::optional<JournalEntry> found;
        eventually([&] {
            for (const JournalEntry& one : entries()) {
                if (one.at("MESSAGE") == message) {
                    found = one;
                }
            }
            return found.has_value();
        });
        return found;
    }

private:
    std::optional<JournalSocket> journal_;
    std::vector<JournalEntry> entries_;
};

TEST_F(JournalFields, TellPlacePriorityAndExplanationOfAnError)
{
    removeKey();
    startDaemon();
    EXPECT_EQ(estimate().result, MQ_RESULT_REFUSED);

    const auto error = entry("decrption key is invalid");
    ASSERT_TRUE(error);
    EXPECT_THAT(*error, AllOf(Contains(Pair("SYSLOG_IDENTIFIER", "FWUPDATE")),
                              Contains(Pair("PRIORITY", "3")),
                              Contains(Pair("CODE_FILE", "quillon-service.cpp")),
                              Contains(Pair("CODE_FUNC", "firmware_control_task")),
                              Contains(Pair("CODE_LINE", MatchesRegex("[1-9][0-9]*"))),
                              Contains(Pair("MESSAGE_ID", "073adb2dce684899b14edb610aa909b5"))));
}

TEST_F(JournalFields, TellThePlatformsOwnErrorsApart)
{
    removeKey();
    startDaemon();
    const auto error =
        entry("Error: [/usr/share/sdp/quillon-key/00000066.bin, ret=1 ], install fail");
    ASSERT_TRUE(error);
    EXPECT_THAT(entries(), Contains(AllOf(Contains(Pair("SYSLOG_IDENTIFIER", "QUILLON-PLATFORM")),
                                          Contains(Pair("CODE_FILE", "provisioning.cpp")))));
}

TEST_F(JournalFields, StandInEveryEntryOfAWholeUpdate)
{
    putImagesForAll("2.0");
    startDaemon();
    EXPECT_EQ(update(), MQ_RESULT_DONE);
    ASSERT_TRUE(entry("========== [ tuner update succeeded ] =========="));
    EXPECT_THAT(entries(), Contains(Contains(Pair("PRIORITY", "6"))));

    std::vector<JournalEntry> service = entries();
    service.erase(std::remove_if(service.begin(), service.end(),
                                 [](const JournalEntry& one) {
                                     return one.at("SYSLOG_IDENTIFIER") != "FWUPDATE";
                                 }),
                  service.end());
    EXPECT_GT(service.size(), 10U);
    EXPECT_THAT(service, Each(AllOf(Contains(Key("CODE_FILE")), Contains(Key("CODE_FUNC")),
                                    Contains(Key("CODE_LINE")), Contains(Key("PRIORITY")))));
}

TEST_F(JournalFields, LeaveNothingForStandardError)
{
    startDaemon();
    estimate();
    EXPECT_THAT(daemon.log(), Each(Not(MatchesRegex("(FWUPDATE|QUILLON).*"))));
}

}  // namespace
}  // namespace quillon::test
