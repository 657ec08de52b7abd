#include "platform/trace.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "captured-stderr.h"

namespace {

TEST(Trace, FormatsNothingWhileNobodyIsAttached)
{
    int formatted = -1;
    EXPECT_GE(trace_logger_write(6, "T", "f.cpp", "g", 1, "abc%n", &formatted), 0);
    EXPECT_EQ(formatted, -1);
}

TEST(Trace, LeavesErrnoAndStandardErrorAlone)
{
    const CapturedStderr captured;
    errno = EXDEV;
    trace_logger_write(6, "T", "f.cpp", "g", 1, "message %d", 1);
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(captured.text(), "");
}

}  // namespace
