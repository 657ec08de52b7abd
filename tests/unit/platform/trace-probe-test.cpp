#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <string>

#include "platform/trace.h"
#include "running-library.h"
#include "support/process.h"

namespace {

using quillon::test::outputOf;

// What tracing tools read about the probe.
std::string probeNote()
{
    return outputOf("readelf -n '" + runningLibrary().path + "'");
}

// The rest of the note's line behind a label; empty when there is none.
std::string noteValue(const std::string& label)
{
    const std::string note = probeNote();
    const std::size_t at = note.find(label);
    if (at == std::string::npos) {
        return "";
    }
    const std::size_t begin = at + label.size();
    return note.substr(begin, note.find('\n', begin) - begin);
}

// The counter that a tracing tool raises while it is attached.
volatile std::uint16_t* semaphore()
{
    const std::string offset = noteValue("Semaphore: ");
    if (offset.empty()) {
        return nullptr;
    }
    return reinterpret_cast<volatile std::uint16_t*>(runningLibrary().base +
                                                     std::stoull(offset, nullptr, 16));
}

TEST(TraceProbe, IsCalledQuillonLog)
{
    EXPECT_THAT(probeNote(), testing::ContainsRegex("Provider: quillon\n +Name: log\n"));
}

TEST(TraceProbe, HasSixArguments)
{
    const std::string arguments = noteValue("Arguments: ");
    EXPECT_EQ(std::count(arguments.begin(), arguments.end(), '@'), 6) << arguments;
}

TEST(TraceProbe, HasACounterThatStartsAtZero)
{
    ASSERT_NE(semaphore(), nullptr);
    EXPECT_EQ(*semaphore(), 0);
}

TEST(TraceProbe, FormatsTheMessageWhileSomebodyIsAttached)
{
    ASSERT_NE(semaphore(), nullptr);
    *semaphore() = 1;
    int formatted = -1;
    errno = EXDEV;
    EXPECT_GE(trace_logger_write(6, "T", "f.cpp", "g", 1, "abc%n", &formatted), 0);
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(formatted, 3);
}

TEST(TraceProbe, RefusesAMissingFormat)
{
    ASSERT_NE(semaphore(), nullptr);
    *semaphore() = 1;
    const char* volatile nothing = nullptr;
    EXPECT_LT(trace_logger_write(6, "T", "f.cpp", "g", 1, nothing, 1), 0);
}

}  // namespace
