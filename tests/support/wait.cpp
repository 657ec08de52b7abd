#include "support/wait.h"

#include <gtest/gtest.h>
#include <time.h>

namespace quillon::test {

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit)
{
    const auto end = std::chrono::system_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::system_clock::now() >= end) {
            return false;
        }
        const timespec pause{0, 2000000};
        nanosleep(&pause, nullptr);
    }
    return true;
}

bool waitFor(const std::string& what, const std::function<bool()>& condition,
             std::chrono::milliseconds limit, const char* file, int line)
{
    const bool came = eventually(condition, limit);
    if (!came) {
        ADD_FAILURE_AT(file, line) << "Waited in vain for " << what;
    }
    return came;
}

}  // namespace quillon::test
