#include "platform/linux/download-reply.h"

#include <charconv>
#include <string_view>
#include <system_error>

namespace quillon {

namespace {

// Takes a number, and the sign that has to stand behind it, off the text.
bool takeNumber(std::string_view& text, char sign, std::uint64_t& number)
{
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || stop == end || *stop != sign) {
        return false;
    }
    text.remove_prefix(static_cast<std::size_t>(stop - text.data()) + 1);
    return true;
}

}  // namespace

long DownloadReply::status() const
{
    long status = 0;
    curl_easy_getinfo(transfer_, CURLINFO_RESPONSE_CODE, &status);
    return status;
}

std::string DownloadReply::redirectAddress() const
{
    const char* address = nullptr;
    curl_easy_getinfo(transfer_, CURLINFO_REDIRECT_URL, &address);
    return address == nullptr ? "" : address;
}

std::string DownloadReply::header(const char* name) const
{
    constexpr int kLastRequest = -1;
    curl_header* found = nullptr;
    const CURLHcode result =
        curl_easy_header(transfer_, name, 0, CURLH_HEADER, kLastRequest, &found);
    return result == CURLHE_OK ? found->value : "";
}

std::string DownloadReply::validator() const
{
    const std::string tag = header("ETag");
    // A weak tag, W/"…", may stay the same while the bytes change.
    return !tag.empty() && tag.front() == '"' ? tag : header("Last-Modified");
}

bool DownloadReply::tellsItsEnd() const
{
    return bodySize() >= 0 || !header("Transfer-Encoding").empty();
}

std::int64_t DownloadReply::bodySize() const
{
    curl_off_t size = -1;
    curl_easy_getinfo(transfer_, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &size);
    return size;
}

bool DownloadReply::range(ContentRange& range) const
{
    constexpr std::string_view kUnit = "bytes ";
    const std::string value = header("Content-Range") + "\n";
    std::string_view text = value;
    if (text.substr(0, kUnit.size()) != kUnit) {
        return false;
    }
    text.remove_prefix(kUnit.size());
    std::uint64_t last = 0;
    return takeNumber(text, '-', range.first) && takeNumber(text, '/', last) &&
           takeNumber(text, '\n', range.size) && range.first <= last && range.size > last &&
           range.size - last == 1;
}

}  // namespace quillon
