#include "platform/linux/package-download.h"

#include <algorithm>
#include <exception>
#include <optional>

#include "platform/linux/download-part.h"
#include "platform/log/platform-log.h"

namespace quillon {

namespace {

using std::chrono::seconds;

seconds pauseAfter(unsigned attempt, seconds first)
{
    constexpr seconds kLongest(600);
    constexpr unsigned kMostDoublings = 10;
    const auto factor = 1U << std::min(attempt - 1, kMostDoublings);
    return std::min(first * factor, std::max(first, kLongest));
}

/// @return nothing when the part is open, else how the download ends.
std::optional<DownloadStatus> openPart(const char* name, DownloadPart& part)
{
    switch (part.open()) {
        case PartResult::kOk:
            return std::nullopt;
        case PartResult::kBusy:
            PLATFORM_LOGE("package %s: another process is downloading it", name);
            return kBusy;
        default:
            PLATFORM_LOGE("package %s cannot be stored: %s", name, part.failure().c_str());
            return kNotStored;
    }
}

DownloadStatus place(const char* name, DownloadPart& part)
{
    if (!part.place()) {
        PLATFORM_LOGE("package %s cannot be stored: %s", name, part.failure().c_str());
        part.discard();
        return kNotStored;
    }
    PLATFORM_LOGI("package %s is there, %llu bytes", name,
                  static_cast<unsigned long long>(part.size()));
    return kDownloaded;
}

DownloadStatus fetch(const std::string& identifier, const DownloadSettings& settings,
                     DownloadCancel& cancel)
{
    const char* name = identifier.c_str();
    DownloadPart part(identifier, settings.address);
    if (const std::optional<DownloadStatus> refused = openPart(name, part)) {
        return *refused;
    }
    for (unsigned number = 1;; ++number) {
        DownloadAttempt attempt(settings, part, cancel);
        const DownloadStatus result = attempt.run(settings.address + identifier + ".img");
        if (result == kDownloaded) {
            return place(name, part);
        }
        if (result == kCancelled) {
            return kCancelled;
        }
        if (result != kUnreachable) {
            PLATFORM_LOGE("package %s cannot be downloaded: %s", name, attempt.reason().c_str());
            part.discard();
            return result;
        }
        if (number == settings.attempts) {
            PLATFORM_LOGE("package %s cannot be downloaded, given up after %u attempts: %s", name,
                          number, attempt.reason().c_str());
            return kUnreachable;
        }
        const seconds pause = pauseAfter(number, settings.retryPause);
        PLATFORM_LOGI("package %s: %s, next attempt in %lld s", name, attempt.reason().c_str(),
                      static_cast<long long>(pause.count()));
        if (cancel.waitFor(pause)) {
            return kCancelled;
        }
    }
}

}  // namespace

DownloadStatus downloadPackage(const std::string& identifier, const DownloadSettings& settings,
                               DownloadCancel& cancel) noexcept
{
    try {
        return fetch(identifier, settings, cancel);
    } catch (const std::exception& error) {
        PLATFORM_LOGE("package %s cannot be downloaded: %s", identifier.c_str(), error.what());
        return kDownloadFailed;
    }
}

}  // namespace quillon
