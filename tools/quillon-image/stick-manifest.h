/// A whole stick out of one JSON file. docs/image-format.md describes it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/quillon-image/stick-image.h"

namespace quillon {

/// One image of a stick. Paths are as the program takes them.
struct StickEntry
{
    std::string place;   ///< where it stands in which manifest, for messages
    std::string module;  ///< firmware name
    std::string version;
    std::string payload;
    std::string imageKey;
    std::string signingKey;  ///< path, or URI of a token's key
    std::optional<ImagePurpose> purpose;
};

struct StickManifest
{
    std::string output;  ///< empty where the manifest names none
    std::vector<StickEntry> entries;
};

/// Reads a manifest. Relative paths in it start at its own directory.
/// @throws ImageError: ImageFault::kFile when it cannot be read; ImageFault::kUsage for what is
///         wrong in it, naming the entry and the remedy.
StickManifest loadManifest(const std::string& path);

/// Makes a directory with the images NAME.bin of all entries.
///
/// The directory appears whole or not at all. SIGHUP, SIGINT and SIGTERM take effect once nothing
/// temporary is left.
/// @param directory  does not exist yet, or is empty
/// @throws ImageError as buildStickImage and the loaders of keys, naming the entry; and
///         ImageFault::kFile for the directory.
void makeStick(const std::vector<StickEntry>& entries, const std::string& directory, Making making);

}  // namespace quillon
