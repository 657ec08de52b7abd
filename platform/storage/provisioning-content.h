#pragma once

#include <cstddef>
#include <string_view>

#include "base/secret-bytes.h"
#include "platform/verifier/security-floors.h"

namespace quillon {

/// What a provisioning package says inside of its signature: one item of the secure storage,
/// security floors, or both.
///
///     QUILLON-PROVISION 1
///     item NAME                (without an item, neither this line nor bytes at the end)
///     floor MODULE NUMBER      (a line for each floor)
///     (an empty line)
///     (the item's bytes, 1 to 65536, to the end)

constexpr std::size_t kLargestItem = 65536;      ///< bytes; an item has at least one
constexpr std::size_t kLongestHeadLine = 256;    ///< bytes; every well-formed line is shorter
constexpr std::size_t kLargestPackage = 131072;  ///< bytes, with signature and certificates

/// @return true for 1 to 64 characters of A-Z a-z 0-9 . _ - that neither begin with a dot nor
///         end in ".cred", which marks the file of a sealed item.
bool isItemName(std::string_view name);

/// Item and payload point into the bytes that were parsed.
struct ProvisioningContent
{
    std::string_view item;     ///< a valid name; empty: floors alone
    std::string_view payload;  ///< 1 to kLargestItem bytes of an item
    Floors floors;
};

/// @param[out] content  whole on success, anything otherwise
/// @return null on success, else what is wrong, to follow "it is not a provisioning package: ".
/// Thread: any.
const char* parseProvisioningContent(std::string_view bytes, ProvisioningContent& content);

/// The reverse. The parts have to be valid.
SecretBytes encodeProvisioningContent(const ProvisioningContent& content);

}  // namespace quillon
