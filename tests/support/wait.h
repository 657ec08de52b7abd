/// Waiting for what another thread or process does. Never for a time: a limit only ends a test that
/// has failed, so it is generous.
#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace quillon::test {

inline constexpr std::chrono::seconds kPatience{60};

/// Looks at the condition every few milliseconds until it is true. By the system clock, since the
/// monotonic one may be the test's own. Thread: any.
/// @return whether it became true within the limit
bool eventually(const std::function<bool()>& condition,
                std::chrono::milliseconds limit = kPatience);

/// As eventually(), and adds a failure at the caller's line when it does not become true.
/// @param what  completes "Waited in vain for ..."; leave file and line alone
bool waitFor(const std::string& what, const std::function<bool()>& condition,
             std::chrono::milliseconds limit = kPatience, const char* file = __builtin_FILE(),
             int line = __builtin_LINE());

}  // namespace quillon::test
