#ifndef QUILLON_SUPPORT_FIRST_TOUCH_H
#define QUILLON_SUPPORT_FIRST_TOUCH_H

#include <cstddef>

namespace quillon {

/// Makes the first touch of memory cheap, for memory that has not been touched yet and of
/// which nearly all will be written: huge pages are advised as far as whole ones fit, so that 2 MiB
/// cost one fault instead of 512, and the small pages before and behind them are had in one call
/// each instead of a fault each. The memory's contents, its owner and the way it is released stay
/// as they are.
///
/// Where the kernel has no such thing, or too little memory, nothing happens. Source: madvise(2),
/// MADV_HUGEPAGE and MADV_POPULATE_WRITE. Thread: any. Keeps errno.
void easeFirstTouch(void* memory, std::size_t size);

}  // namespace quillon

#endif
