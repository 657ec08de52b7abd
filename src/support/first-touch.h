#ifndef QUILLON_SUPPORT_FIRST_TOUCH_H
#define QUILLON_SUPPORT_FIRST_TOUCH_H

#include <atomic>
#include <cstddef>
#include <thread>

namespace quillon {

/// Makes the first touch of memory cheap, for memory that has not been touched yet and of
/// which nearly all will be written, from its beginning to its end, by whoever holds this object.
///
/// Huge pages are advised as far as whole ones fit, so that 2 MiB cost one fault instead of 512,
/// and the small pages before and behind them are had in one call each instead of a fault each.
/// Where the calling thread may run on more than one processor, a thread of the object's own has
/// the huge pages of large memory (8 MiB and more) ahead of the one who writes. The memory's
/// contents, its owner and the way it is released stay as they are.
///
/// Where the kernel has no such thing, too little memory, or no thread to spare, that part does not
/// happen. Source: madvise(2), MADV_HUGEPAGE and MADV_POPULATE_WRITE. Thread: any. Keeps errno.
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

#endif
