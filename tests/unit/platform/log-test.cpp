#include "platform/log.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "captured-stderr.h"
#include "fake-journal.h"
#include "support/texts.h"

// __extension__ because "%m" is the C library's own, which -Wpedantic minds.
#define LOG(...) __extension__ __dlog_print(2, __VA_ARGS__)

namespace {

using quillon::test::expectTexts;

class LogOnStandardError : public testing::Test
{
protected:
    void SetUp() override { unsetenv("JOURNAL_STREAM"); }

    CapturedStderr captured;
};

TEST_F(LogOnStandardError, ShowsTagLevelPlaceAndMessageInOneLine)
{
    EXPECT_GE(LOG(6, "FWUPDATE", "%s: %s(%d) > message %s %d", "quillon-service.cpp",
                  "service_start", 42, "one", 2),
              0);
    EXPECT_EQ(captured.text(),
              "FWUPDATE E quillon-service.cpp: service_start(42) > message one 2\n");
}

TEST_F(LogOnStandardError, TakesAMessageWithoutPlace)
{
    LOG(4, "FWUPDATE", "%s: %s", "no", "place");
    EXPECT_EQ(captured.text(), "FWUPDATE I no: place\n");
}

TEST_F(LogOnStandardError, GivesEachPriorityItsLetter)
{
    for (int priority = 2; priority <= 8; ++priority) {
        LOG(priority, "T", "message");
    }
    expectTexts(captured.lines(), {"T V message", "T D message", "T I message", "T W message",
                                   "T E message", "T F message", "T ? message"});
}

TEST_F(LogOnStandardError, GivesTheSeverityAsAPrefixToWhoeverReadsItForTheJournal)
{
    setenv("JOURNAL_STREAM", "8:1234", 1);
    for (int priority = 2; priority <= 8; ++priority) {
        LOG(priority, "T", "%s: %s(%d) > m", "f.cpp", "g", 1);
    }
    expectTexts(captured.lines(),
                {"<7>T: f.cpp: g(1) > m", "<7>T: f.cpp: g(1) > m", "<6>T: f.cpp: g(1) > m",
                 "<4>T: f.cpp: g(1) > m", "<3>T: f.cpp: g(1) > m", "<2>T: f.cpp: g(1) > m",
                 "<6>T: f.cpp: g(1) > m"});
}

TEST_F(LogOnStandardError, WritesOneLineForAMessageThatEndsWithNewlines)
{
    LOG(4, "T", "%s: %s(%d) > done\n\n", "f.cpp", "g", 1);
    EXPECT_EQ(captured.text(), "T I f.cpp: g(1) > done\n");
}

TEST_F(LogOnStandardError, KeepsBlanksAtTheEndOfAMessage)
{
    LOG(6, "T", "%s is NOT signed ", "a.bin");
    EXPECT_EQ(captured.text(), "T E a.bin is NOT signed \n");
}

TEST_F(LogOnStandardError, LetsNoMessageForgeALineOfItsOwn)
{
    LOG(6, "T", "path %s", "a\nT E forged\r\x1b[2J\x7f\tb");
    EXPECT_EQ(captured.text(), "T E path a T E forged  [2J \tb\n");
}

TEST_F(LogOnStandardError, KeepsBytesAboveAscii)
{
    LOG(4, "T", "%s", "Gr\xc3\xbc\xc3\x9f");
    EXPECT_EQ(captured.text(), "T I Gr\xc3\xbc\xc3\x9f\n");
}

TEST_F(LogOnStandardError, ExpandsPercentMToErrnoAtTheCall)
{
    errno = ENOTDIR;
    LOG(6, "T", "%s: %s(%d) > failed: %m\n", "f.cpp", "g", 1);
    EXPECT_EQ(captured.text(), "T E f.cpp: g(1) > failed: Not a directory\n");
}

TEST_F(LogOnStandardError, ExpandsPercentMInALongMessage)
{
    const std::string filler(5000, 'x');
    errno = ENOTDIR;
    LOG(6, "T", "%s %m", filler.c_str());
    EXPECT_EQ(captured.text(), "T E " + filler + " Not a directory\n");
}

TEST_F(LogOnStandardError, LeavesErrnoAsItWas)
{
    errno = EXDEV;
    LOG(6, "T", "message");
    EXPECT_EQ(errno, EXDEV);
}

TEST_F(LogOnStandardError, CutsNoMessageHoweverLong)
{
    for (const std::size_t length : {0U, 1U, 500U, 510U, 511U, 512U, 513U, 4096U, 200000U}) {
        const std::string message(length, 'x');
        captured.clear();
        EXPECT_EQ(LOG(4, "T", "%s", message.c_str()), static_cast<int>(length));
        EXPECT_EQ(captured.text(), "T I " + message + "\n");
    }
}

TEST_F(LogOnStandardError, RefusesAMissingFormat)
{
    const char* volatile nothing = nullptr;
    EXPECT_LT(__dlog_print(2, 6, "T", nothing, 1), 0);
    EXPECT_EQ(captured.text(), "");
}

TEST_F(LogOnStandardError, ShowsAMissingTagAndPlaceAsUnknown)
{
    const char* volatile nothing = nullptr;
    LOG(6, nothing, "%s: %s(%d) > message", static_cast<const char*>(nothing),
        static_cast<const char*>(nothing), 7);
    EXPECT_EQ(captured.text(), "? E ?: ?(7) > message\n");
}

TEST_F(LogOnStandardError, ReportsWhatItCouldNotWrite)
{
    const int original = dup(STDERR_FILENO);
    close(STDERR_FILENO);
    const int result = LOG(6, "T", "message");
    dup2(original, STDERR_FILENO);
    close(original);
    EXPECT_LT(result, 0);
}

// The line of one thread and message: longer than what a pipe takes in one piece.
std::string threadsLine(int thread, int message)
{
    return "thread " + std::to_string(thread) + " message " + std::to_string(message) + " " +
           std::string(6000, static_cast<char>('a' + thread));
}

TEST(LogThreads, DoNotMixTheirLines)
{
    constexpr int kThreads = 8;
    constexpr int kMessages = 100;
    unsetenv("JOURNAL_STREAM");
    int ends[2] = {-1, -1};
    ASSERT_EQ(pipe(ends), 0);
    const int original = dup(STDERR_FILENO);
    dup2(ends[1], STDERR_FILENO);
    close(ends[1]);

    std::string all;
    std::thread reader([&all, file = ends[0]] {
        char buffer[1000];
        for (ssize_t count = 0; (count = read(file, buffer, sizeof buffer)) > 0;) {
            all.append(buffer, static_cast<std::size_t>(count));
        }
    });
    std::vector<std::thread> writers;
    writers.reserve(kThreads);
    for (int thread = 0; thread < kThreads; ++thread) {
        writers.emplace_back([thread] {
            for (int message = 0; message < kMessages; ++message) {
                LOG(4, "T", "%s", threadsLine(thread, message).c_str());
            }
        });
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    dup2(original, STDERR_FILENO);
    close(original);
    reader.join();
    close(ends[0]);

    std::size_t found = 0;
    for (int thread = 0; thread < kThreads; ++thread) {
        for (int message = 0; message < kMessages; ++message) {
            const std::string line = "T I " + threadsLine(thread, message) + "\n";
            found += all.find(line) != std::string::npos ? line.size() : 0;
        }
    }
    EXPECT_EQ(found, all.size());
}

}  // namespace
