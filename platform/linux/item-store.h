#ifndef QUILLON_PLATFORM_LINUX_ITEM_STORE_H
#define QUILLON_PLATFORM_LINUX_ITEM_STORE_H

#include <cstddef>
#include <string_view>

#include "files.h"

namespace quillon {

/// The secure storage on disk: one file an item, the item's raw bytes, mode 0600, in a folder of
/// mode 0700.

constexpr std::size_t kLargestItem = 65536;  ///< bytes; an item has at least one

/// The values of ss_read and, for storeItem, of the storage's own operations.
enum StoreResult : int {
    kStoreOk = 0,
    kStoreBadArgument = 1,  ///< a null pointer or a name that cannot be an item's
    kStoreFailed = 2,       ///< the system refused; the log names the reason
    kStoreNotAFile = 3,     ///< a link, a folder, a FIFO or a device in the item's place
    kStoreExposed = 4,      ///< the file's mode lets group or others at it
    kStoreMissing = 5,      ///< no such item
    kStoreBadSize = 6,      ///< empty, or larger than kLargestItem
};

/// @return true for 1 to 64 characters of A-Z a-z 0-9 . _ - that do not begin with a dot.
bool isItemName(std::string_view name);

/// Reads a whole item. Every result but kStoreOk and kStoreMissing is told on the log.
/// @param[out] bytes  the item on kStoreOk, anything otherwise
/// Thread: any. Throws std::bad_alloc.
StoreResult readItem(std::string_view name, SecretBytes& bytes);

/// Writes a whole item in one step, making the folder when it is missing and replacing what was
/// there. Failures are told on the log.
/// Thread: any. Throws std::bad_alloc.
StoreResult storeItem(std::string_view name, const SecretBytes& bytes);

}  // namespace quillon

#endif
