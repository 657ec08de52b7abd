#pragma once

#include <string>
#include <vector>

namespace quillon::device {

/// Builds in `mirror` what an overlay over `host` would show, for where there can be no overlay:
/// the directory itself and those on the way to one of `directories` are made anew, their other
/// entries are bound from the host. Bound entries are read-only outside of /tmp and of
/// world-writable directories.
///
/// @param mirror   made here; a place on a private file system
/// @param directories  made as empty directories; those outside of `host` do not matter
/// @param hidden   host entries that are not shown: a directory is empty, anything else absent
/// @throws SetupError
void mirrorDirectory(const std::string& host, const std::string& mirror,
                     const std::vector<std::string>& directories,
                     const std::vector<std::string>& hidden);

}  // namespace quillon::device
