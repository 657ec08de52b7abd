/// An extension module package: a file system image with two files at its root.
///
///     info.json          {"version": TEXT, "crc": NUMBER, "expected_time": SECONDS}
///     FIRMWARENAME.bin   the payload, whose CRC-32 is "crc"
///
/// The firmware name is the package's name without its first "emp": "tunerempA1" holds
/// "tunerA1.bin". A device has the image as NAME.img and mounts it read-only.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace quillon {

enum class PackageType { kSquashfs, kExt4 };

/// What goes into a package.
struct PackageContent
{
    std::string name;                  ///< 1 to 127 ASCII letters and digits with "emp" among them
    std::string version;               ///< 1 to 63 printable ASCII characters
    std::string payload;               ///< path of a regular file, which may be empty
    std::uint32_t expectedTime = 300;  ///< how long the update takes, in seconds
};

/// @return the payload's name in the package without ".bin", and the module's name everywhere else.
/// @throws ImageError with ImageFault::kUsage when the name is none for a package.
std::string firmwareNameOf(const std::string& packageName);

/// Makes a package. The same content makes the same bytes, whoever makes it and when.
///
/// Works in a directory beside the output that is gone afterwards, also when the work is
/// interrupted. Memory does not grow with the payload.
///
/// @param outputPath  the package; appears whole or not at all and replaces an earlier file
/// @return the payload's CRC-32.
/// @throws ImageError: ImageFault::kUsage for name and version; ImageFault::kFile for a file that
///         cannot be read or written, and for mksquashfs, mke2fs or debugfs missing or failing.
std::uint32_t buildPackage(const PackageContent& content, PackageType type,
                           const std::string& outputPath);

/// Tells a package from other files by the mark of its file system.
/// @return nothing when the file bears neither mark.
/// @throws ImageError with ImageFault::kFile when the file cannot be read.
std::optional<PackageType> packageTypeOf(const std::string& path);

}  // namespace quillon
