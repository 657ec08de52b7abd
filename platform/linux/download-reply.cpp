#include "platform/linux/download-reply.h"

#include <cstdlib>

namespace quillon {

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

std::uint64_t DownloadReply::wholeSize(std::uint64_t offset) const
{
    const std::string value = header("Content-Range");
    const std::size_t slash = value.find('/');
    const std::uint64_t size =
        slash == value.npos ? 0 : std::strtoull(value.c_str() + slash + 1, nullptr, 10);
    // Compared as a whole, so that nothing else in it can be misread.
    const std::string wanted = "bytes " + std::to_string(offset) + "-" + std::to_string(size - 1) +
                               "/" + std::to_string(size);
    return size > offset && value == wanted ? size : 0;
}

}  // namespace quillon
