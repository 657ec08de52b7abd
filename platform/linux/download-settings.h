#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace quillon {

/// Where packages come from and how patiently they are fetched.
struct DownloadSettings
{
    std::string address;  ///< "http://…/" or "https://…/"; a package lies at address + file name
    std::string caFile;   ///< PEM file of trusted authorities; empty: the machine's own
    std::uint64_t sizeLimit = 1024ULL * 1024 * 1024;  ///< bytes; nothing larger is kept
    std::chrono::seconds connectTimeout{30};
    std::chrono::seconds stallTimeout{60};  ///< how long hardly anything may arrive
    std::chrono::seconds retryPause{2};     ///< before the second attempt; doubled each time
    unsigned attempts = 5;                  ///< at least 1
};

/// Reads the configuration file, QUILLON_DOWNLOADS_CONF.
///
/// A line is empty, begins with "#" or is "key = value"; the keys are address, ca-file, size-limit
/// (bytes), connect-timeout, stall-timeout, retry-pause (seconds) and attempts. The last of two
/// equal keys counts.
/// @param[out] settings  filled when true is returned, anything otherwise
/// @return false when there is no such file or something in it is wrong; one log line says what.
/// Thread: any. Throws std::bad_alloc.
bool readDownloadSettings(DownloadSettings& settings);

}  // namespace quillon
