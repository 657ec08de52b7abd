/// How a client's errors read in expectations.
#pragma once

#include <gmock/gmock.h>
#include <quillon/client.h>

#include <ostream>

namespace quillon {

inline void PrintTo(const Error& error, std::ostream* out)
{
    *out << "code " << static_cast<int>(error.code) << " \"" << error.text << "\"";
}

MATCHER(Succeeded, "is no error")
{
    return arg.code == ErrorCode::kNone && arg.text.empty();
}

MATCHER_P2(FailedWith, code, text, "is an error with that code and text")
{
    return arg.code == code && testing::ExplainMatchResult(text, arg.text, result_listener);
}

}  // namespace quillon
