#pragma once

#include <atomic>
#include <cstddef>
#include <thread>

namespace quillon {

/// Pre-faults a fresh buffer that is about to be written sequentially.
///
/// Advises huge pages as far as whole ones fit, so that 2 MiB cost one fault instead of 512, and
/// faults the small pages before and behind them in with one call each. If the calling thread may
/// run on more than one processor, a thread of the object's own faults in the huge pages of large
/// memory (8 MiB and more) ahead of the writer. The contents, the owner and the way to release the
/// memory stay as they are.
///
/// What the kernel cannot do, or has no memory or thread for, is left out. Source: madvise(2),
/// MADV_HUGEPAGE and MADV_POPULATE_WRITE. Thread: any. Keeps errno.
class EasedFirstTouch
{
public:
    /// @param memory  stays the caller's, and stays mapped for the object's life
    /// @param size  in bytes
    EasedFirstTouch(void* memory, std::size_t size);

    /// Waits for the thread, for one huge page at most.
    ~EasedFirstTouch();

    EasedFirstTouch(const EasedFirstTouch&) = delete;
    EasedFirstTouch& operator=(const EasedFirstTouch&) = delete;

private:
    std::atomic<bool> isOver_{false};
    std::thread ahead_;
};

}  // namespace quillon
