/// What the sanitizers do in the programs that a test starts.
#pragma once

#include <cstdlib>
#include <string>

namespace quillon::test {

/// Tells the sanitizers of all programs that are started from now on, beside what they are told
/// already. Without effect on programs that have none.
inline void tellSanitizers(const std::string& options)
{
    for (const char* name : {"ASAN_OPTIONS", "TSAN_OPTIONS"}) {
        const char* present = std::getenv(name);
        ::setenv(name, ((present != nullptr ? present : "") + (":" + options)).c_str(), 1);
    }
}

/// A program is told of its own crashes, as without a sanitizer, which would exit instead; what the
/// sanitizer finds is a crash as well.
inline void leaveCrashesToPrograms()
{
    tellSanitizers(
        "handle_segv=0:handle_sigbus=0:handle_sigfpe=0:handle_sigill=0:handle_sigtrap=0:"
        "handle_abort=0:abort_on_error=1");
}

/// Leaks are looked for when a program ends, also in one that was forked and lacks the threads
/// whose memory it has.
inline void lookForNoLeaks()
{
    tellSanitizers("detect_leaks=0");
}

}  // namespace quillon::test
