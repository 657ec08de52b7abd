#ifndef QUILLON_PLATFORM_LINUX_PACKAGE_DOWNLOAD_H
#define QUILLON_PLATFORM_LINUX_PACKAGE_DOWNLOAD_H

#include <string>

#include "platform/linux/download-cancel.h"
#include "platform/linux/download-settings.h"

namespace quillon {

/// The status values of ABM_DownloadAppBinary's callback, and one that is never told.
enum DownloadStatus : int {
    kDownloaded = 0,
    kDownloadFailed = -1,  ///< memory or another means of this process ran out
    kUnreachable = -2,     ///< every attempt broke off; the next request goes on where this ended
    kRefused = -3,         ///< the server does not give the package, or is not to be trusted
    kTooLarge = -4,        ///< larger than the size limit
    kNotStored = -5,       ///< the packages' directory cannot be written
    kBusy = -6,            ///< another process is downloading this package
    kCancelled = -100,     ///< the process ends
};

/// Fetches a package to "/opt/usr/apps/appbinarymanager/<identifier>.img".
///
/// The package appears there whole, synced and in one step, or not at all. Attempts that break off
/// are continued after growing pauses. The log tells how it ended.
/// @param identifier  letters and digits, at most 127
/// Thread: one a package; blocks until the end. Never throws.
DownloadStatus downloadPackage(const std::string& identifier, const DownloadSettings& settings,
                               DownloadCancel& cancel) noexcept;

}  // namespace quillon

#endif
