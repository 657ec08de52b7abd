#ifndef QUILLON_PLATFORM_LINUX_PACKAGE_H
#define QUILLON_PLATFORM_LINUX_PACKAGE_H

#include <cstddef>
#include <string_view>

namespace quillon {

constexpr std::size_t kLongestPackageHead = 256;  ///< bytes; every well-formed head is shorter

/// A provisioning package, all parts pointing into the bytes that were parsed.
struct Package
{
    std::string_view item;    ///< the item's name, a valid one
    std::string_view digest;  ///< SHA-256 of the payload, 64 lowercase hexadecimal digits
    std::string_view payload;
};

/// Parses a package:
///     QUILLON-PROVISION 1
///     item NAME
///     sha256 HEX
///     (an empty line)
///     (the payload, 1 to 65536 bytes, to the end)
/// @return null on success, else what is wrong with it, for the log. Does not look at the payload;
///         see digestMatches. Thread: any.
const char* parsePackage(std::string_view bytes, Package& package);

/// @return true when the payload has the digest that the package states.
bool digestMatches(const Package& package);

}  // namespace quillon

#endif
