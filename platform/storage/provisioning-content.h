#ifndef QUILLON_PLATFORM_STORAGE_PROVISIONING_CONTENT_H
#define QUILLON_PLATFORM_STORAGE_PROVISIONING_CONTENT_H

#include <cstddef>
#include <string_view>

#include "files.h"

namespace quillon {

/// What a provisioning package says inside of its signature: one item of the secure storage.
///
///     QUILLON-PROVISION 1
///     item NAME
///     (an empty line)
///     (the item's bytes, 1 to 65536, to the end)

constexpr std::size_t kLargestItem = 65536;       ///< bytes; an item has at least one
constexpr std::size_t kLongestContentHead = 256;  ///< bytes; every well-formed head is shorter
constexpr std::size_t kLargestPackage = 131072;   ///< bytes, with signature and certificates

/// @return true for 1 to 64 characters of A-Z a-z 0-9 . _ - that neither begin with a dot nor end
/// in
///         ".cred", which marks the file of a sealed item.
bool isItemName(std::string_view name);

/// All parts point into the bytes that were parsed.
struct ProvisioningContent
{
    std::string_view item;  ///< a valid name
    std::string_view payload;
};

/// @param[out] content  whole on success, anything otherwise
/// @return null on success, else what is wrong, to follow "it is not a provisioning package: ".
/// Thread: any.
const char* parseProvisioningContent(std::string_view bytes, ProvisioningContent& content);

/// The reverse. Name and payload have to be valid.
SecretBytes encodeProvisioningContent(const ProvisioningContent& content);

}  // namespace quillon

#endif
