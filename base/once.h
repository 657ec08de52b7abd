#pragma once

#include <atomic>

namespace quillon {

/// Lets one caller through in the life of the process: `static Once said; if (said.first()) ...`.
/// Thread: any.
class Once
{
public:
    bool first() { return !done_.exchange(true); }

private:
    std::atomic<bool> done_{false};
};

}  // namespace quillon
