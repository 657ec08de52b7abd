#ifndef QUILLON_SUPPORT_HUGE_PAGES_H
#define QUILLON_SUPPORT_HUGE_PAGES_H

#include <cstddef>

namespace quillon {

/// Advises the kernel to back memory that has not been touched yet with huge pages, as far as whole
/// ones fit: touching it for the first time then costs one fault for 2 MiB instead of 512. The
/// memory's contents, its owner and the way it is released stay as they are.
///
/// Advice only: without huge pages, or where they would not fit, nothing happens. Source:
/// madvise(2), MADV_HUGEPAGE. Thread: any. Keeps errno.
void adviseHugePages(void* memory, std::size_t size);

}  // namespace quillon

#endif
