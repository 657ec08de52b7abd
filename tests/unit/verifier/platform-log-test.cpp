// Where the verifier's words go when the process has a platform log.

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "platform/log.h"
#include "support/texts.h"
#include "unit/verifier/verifier-test.h"

namespace {

std::vector<std::string> recorded;

}  // namespace

int __dlog_print(int buffer, int priority, const char* tag, const char* format, ...)
{
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    static_cast<void>(std::vsnprintf(text, sizeof(text), format, arguments));
    va_end(arguments);
    recorded.push_back(std::to_string(buffer) + " " + std::to_string(priority) + " " + tag + " " +
                       text);
    return 0;
}

namespace quillon::test {
namespace {

class PlatformLog : public VerifierTest
{
};

TEST_F(PlatformLog, ReceivesTheReasonAsAnErrorInsteadOfStandardError)
{
    EXPECT_EQ(verify(stick), 0);

    EXPECT_EQ(said, "");
    expectTexts(recorded, {"2 6 libkUEPUser libkUEPUser: " + stick +
                           ": cannot be read: is a directory (asked by "
                           "UserCaller)"});
}

}  // namespace
}  // namespace quillon::test
