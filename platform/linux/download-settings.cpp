#include "platform/linux/download-settings.h"

#include <charconv>
#include <string_view>
#include <system_error>

#include "base/fd.h"
#include "base/regular-file.h"
#include "base/secret-bytes.h"
#include "platform/log/platform-log.h"

namespace quillon {

namespace {

constexpr char kFile[] = QUILLON_DOWNLOADS_CONF;
constexpr std::size_t kLargestFile = 65536;
constexpr std::uint64_t kLargestPackage = INT64_MAX;  // a file cannot be larger
constexpr std::uint64_t kLongestTime = 86400;
constexpr std::uint64_t kMostAttempts = 100;

std::string_view trimmed(std::string_view text)
{
    constexpr std::string_view kBlanks = " \t\r";
    const std::size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

bool startsWith(std::string_view text, std::string_view start)
{
    return text.substr(0, start.size()) == start;
}

bool isDirectoryAddress(std::string_view text)
{
    if (!startsWith(text, "http://") && !startsWith(text, "https://")) {
        return false;
    }
    // Behind a "?" or "#" the name of the package would not belong to the path.
    for (const char c : text) {
        if (c <= ' ' || c > '~' || c == '?' || c == '#') {
            return false;
        }
    }
    return text.back() == '/';
}

/// @param number  of a type that has room for the most
template <typename Number>
bool toNumber(std::string_view text, std::uint64_t least, std::uint64_t most, Number& number)
{
    std::uint64_t value = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    number = static_cast<Number>(value);
    return error == std::errc() && stop == end && value >= least && value <= most;
}

bool set(DownloadSettings& settings, std::string_view key, std::string_view value)
{
    if (key == "address") {
        settings.address = value;
        return isDirectoryAddress(value);
    }
    if (key == "ca-file") {
        settings.caFile = value;
        return startsWith(value, "/");
    }
    if (key == "size-limit") {
        return toNumber(value, 1, kLargestPackage, settings.sizeLimit);
    }
    if (key == "connect-timeout") {
        return toNumber(value, 1, kLongestTime, settings.connectTimeout);
    }
    if (key == "stall-timeout") {
        return toNumber(value, 1, kLongestTime, settings.stallTimeout);
    }
    if (key == "retry-pause") {
        return toNumber(value, 0, kLongestTime, settings.retryPause);
    }
    return key == "attempts" && toNumber(value, 1, kMostAttempts, settings.attempts);
}

bool takeLine(DownloadSettings& settings, std::string_view line)
{
    line = trimmed(line);
    if (line.empty() || line.front() == '#') {
        return true;
    }
    const std::size_t sign = line.find('=');
    return sign != std::string_view::npos &&
           set(settings, trimmed(line.substr(0, sign)), trimmed(line.substr(sign + 1)));
}

bool takeLines(DownloadSettings& settings, std::string_view text)
{
    for (int number = 1; !text.empty(); ++number) {
        const std::size_t end = text.find('\n');
        // The line itself is not logged: an address may hold a password.
        if (!takeLine(settings, text.substr(0, end))) {
            PLATFORM_LOGE("%s: line %d has an unknown key or a value that it cannot have", kFile,
                          number);
            return false;
        }
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    return true;
}

bool readText(std::string& text)
{
    UniqueFd fd;
    struct stat opened = {};
    switch (openRegularFile(kFile, 0, fd, opened)) {
        case FileResult::kOk:
            break;
        case FileResult::kMissing:
            PLATFORM_LOGI("there is no %s: no package is downloaded", kFile);
            return false;
        case FileResult::kNotRegular:
            PLATFORM_LOGE("%s is not a regular file", kFile);
            return false;
        default:
            PLATFORM_LOGE("%s cannot be opened: %m", kFile);
            return false;
    }
    SecretBytes bytes;
    const FileResult result = readToEnd(fd.get(), kLargestFile, bytes);
    if (result == FileResult::kTooLarge) {
        PLATFORM_LOGE("%s is larger than %zu bytes", kFile, kLargestFile);
        return false;
    }
    if (result != FileResult::kOk) {
        PLATFORM_LOGE("%s cannot be read: %m", kFile);
        return false;
    }
    text.assign(bytes.begin(), bytes.end());
    return true;
}

}  // namespace

bool readDownloadSettings(DownloadSettings& settings)
{
    settings = DownloadSettings();
    std::string text;
    if (!readText(text) || !takeLines(settings, text)) {
        return false;
    }
    if (settings.address.empty()) {
        PLATFORM_LOGE("%s has no address", kFile);
        return false;
    }
    return true;
}

}  // namespace quillon
