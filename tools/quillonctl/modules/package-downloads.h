/// Downloads of packages that are waited for.
#ifndef QUILLON_QUILLONCTL_PACKAGE_DOWNLOADS_H
#define QUILLON_QUILLONCTL_PACKAGE_DOWNLOADS_H

#include <optional>
#include <string>
#include <vector>

namespace quillon {

/// Has the platform download packages, all at once, and waits for every one to end. Some platforms
/// download in the process that asks, so it must not end before.
///
/// @param packages  identifiers
/// @return for each the status that the platform gave, 0 meaning downloaded; nothing where it did
///         not accept the request
std::vector<std::optional<int>> downloadPackages(const std::vector<std::string>& packages);

}  // namespace quillon

#endif
