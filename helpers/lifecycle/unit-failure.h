#pragma once

#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <string>
#include <system_error>

namespace quillon::unit {

/// As syslog counts them.
enum class Priority { kError = 3, kWarning = 4, kInfo = 6 };

/// One line on standard error; where the journal reads it, with its priority in front, which the
/// journal takes off.
inline void say(Priority priority, const std::string& text)
{
    const bool toJournal = std::getenv("JOURNAL_STREAM") != nullptr;
    const std::string prefix = "<" + std::to_string(static_cast<int>(priority)) + ">";
    std::cerr << (toJournal ? prefix : "") + "quillon-unit: " + text + "\n";
}

/// Throws errno as std::system_error, "<what>: <text of errno>".
[[noreturn]] inline void failWithErrno(const std::string& what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace quillon::unit
