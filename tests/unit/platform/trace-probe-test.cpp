#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <regex>
#include <string>

#include "platform/trace.h"
#include "running-library.h"

namespace {

// What tracing tools read about the probe.
std::string probeNote()
{
    return outputOf("readelf -n '" + runningLibrary().path + "'");
}

// The counter that a tracing tool raises while it is attached.
volatile std::uint16_t* semaphore()
{
    std::smatch match;
    const std::string note = probeNote();
    if (!std::regex_search(note, match, std::regex("Semaphore: 0x([0-9a-f]+)"))) {
        return nullptr;
    }
    const std::uintptr_t offset = std::stoull(match[1], nullptr, 16);
    return reinterpret_cast<volatile std::uint16_t*>(runningLibrary().base + offset);
}

TEST(TraceProbe, IsCalledQuillonLog)
{
    EXPECT_THAT(probeNote(), testing::ContainsRegex("Provider: quillon\n +Name: log\n"));
}

TEST(TraceProbe, HasSixArguments)
{
    std::smatch match;
    const std::string note = probeNote();
    ASSERT_TRUE(std::regex_search(note, match, std::regex("Arguments: (.*)")));
    const std::string arguments = match[1];
    const std::regex one("-?[48]@");
    EXPECT_EQ(std::distance(std::sregex_iterator(arguments.begin(), arguments.end(), one),
                            std::sregex_iterator()),
              6);
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
    EXPECT_LT(trace_logger_write(6, "T", "f.cpp", "g", 1, nothing), 0);
}

}  // namespace
