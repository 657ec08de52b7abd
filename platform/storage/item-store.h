#pragma once

#include <string_view>

#include "base/secret-bytes.h"

namespace quillon {

/// The secure storage on disk, in a directory of mode 0700: the item NAME is the file NAME.cred,
/// sealed (sealing.h). Where the machine cannot seal it is the file NAME with the item's raw bytes;
/// such a file is read anywhere while there is no sealed one. Both have mode 0600.

/// The values of ss_read and, for storeItem, of the storage's own operations.
enum StoreResult : int {
    kStoreOk = 0,
    kStoreBadArgument = 1,  ///< a null pointer or a name that cannot be an item's
    kStoreFailed = 2,       ///< the system refused; the log names the reason
    kStoreNotAFile = 3,     ///< a link, a directory, a FIFO or a device in the item's place
    kStoreExposed = 4,      ///< the file's mode lets group or others at it
    kStoreMissing = 5,      ///< no such item
    kStoreBadSize = 6,      ///< empty, or larger than kLargestItem
    kStoreSealed = 7,       ///< sealed, and cannot be unsealed here; the log names the reason
};

/// Reads a whole item. Every result but kStoreOk and kStoreMissing is told on the log.
/// @param[out] bytes  the item on kStoreOk, anything otherwise
/// Thread: any. Throws std::bad_alloc.
StoreResult readItem(std::string_view name, SecretBytes& bytes);

/// Writes a whole item in one step, making the directory when it is missing and replacing what was
/// there. Failures are told on the log.
/// @return kStoreOk, kStoreBadArgument or kStoreFailed.
/// Thread: any. Throws std::bad_alloc.
StoreResult storeItem(std::string_view name, const SecretBytes& bytes);

}  // namespace quillon
