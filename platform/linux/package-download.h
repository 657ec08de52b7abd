#pragma once

#include <string>

#include "platform/linux/download-attempt.h"
#include "platform/linux/download-cancel.h"
#include "platform/linux/download-settings.h"

namespace quillon {

/// Fetches a package to "/opt/usr/apps/appbinarymanager/<identifier>.img".
///
/// The package appears there whole, synced and in one step, or not at all. Attempts that break off
/// are continued after growing pauses. The log tells how it ended.
/// @param identifier  letters and digits, at most 127
/// Thread: one a package; blocks until the end. Never throws.
DownloadStatus downloadPackage(const std::string& identifier, const DownloadSettings& settings,
                               DownloadCancel& cancel) noexcept;

}  // namespace quillon
