#include "platform/linux/download-attempt.h"

#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <new>
#include <string_view>
#include <utility>
#include <vector>

namespace quillon {

namespace {

constexpr int kMostRedirections = 5;
constexpr std::size_t kMostDropped = 65536;
constexpr long kSlowestBytesPerSecond = 100;

bool isSecure(std::string_view address)
{
    return address.substr(0, 8) == "https://";
}

bool mayLead(std::string_view from, std::string_view to)
{
    return isSecure(to) || (!isSecure(from) && to.substr(0, 7) == "http://");
}

bool isTemporary(long status)
{
    constexpr long kTimeout = 408;
    constexpr long kTooManyRequests = 429;
    return status == kTimeout || status == kTooManyRequests || status >= 500;
}

bool isFinal(CURLcode code)
{
    switch (code) {
        case CURLE_UNSUPPORTED_PROTOCOL:
        case CURLE_URL_MALFORMAT:
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_CERTPROBLEM:
            return true;
        default:
            return false;
    }
}

// Of the head of the reply that a transfer is just receiving, or has received last:

long statusOf(CURL* transfer)
{
    long status = 0;
    curl_easy_getinfo(transfer, CURLINFO_RESPONSE_CODE, &status);
    return status;
}

bool isRedirection(CURL* transfer)
{
    return statusOf(transfer) / 100 == 3;
}

/// @return an absolute address; empty when nothing is redirected
std::string redirectionOf(CURL* transfer)
{
    const char* address = nullptr;
    curl_easy_getinfo(transfer, CURLINFO_REDIRECT_URL, &address);
    return address == nullptr ? "" : address;
}

std::vector<std::string> headersOf(CURL* transfer, const char* name)
{
    constexpr int kLastRequest = -1;
    std::vector<std::string> values;
    for (curl_header* found = nullptr; curl_easy_header(transfer, name, values.size(), CURLH_HEADER,
                                                        kLastRequest, &found) == CURLHE_OK;) {
        values.emplace_back(found->value);
    }
    return values;
}

/// @return empty also when the reply has several of that name: which one is meant is not known
std::string headerOf(CURL* transfer, const char* name)
{
    const std::vector<std::string> values = headersOf(transfer, name);
    return values.size() == 1 ? values.front() : "";
}

/// Only a body in chunks tells its end by itself. No other coding was asked for, and where one is
/// named as well, libcurl may still read the body up to the end of the connection.
bool comesInChunks(CURL* transfer)
{
    return strcasecmp(headerOf(transfer, "Transfer-Encoding").c_str(), "chunked") == 0;
}

/// Whether the bytes of the body are not those of the package: libcurl undoes only what it asked
/// for.
bool isEncoded(CURL* transfer)
{
    const std::vector<std::string> codings = headersOf(transfer, "Content-Encoding");
    return std::any_of(codings.begin(), codings.end(), [](const std::string& coding) {
        return strcasecmp(coding.c_str(), "identity") != 0;
    });
}

std::string validatorOf(CURL* transfer)
{
    const std::string tag = headerOf(transfer, "ETag");
    // A weak tag, W/"…", may stay the same while the bytes change.
    return !tag.empty() && tag.front() == '"' ? tag : headerOf(transfer, "Last-Modified");
}

/// @return -1 when none is stated
std::int64_t bodySizeOf(CURL* transfer)
{
    curl_off_t size = -1;
    curl_easy_getinfo(transfer, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &size);
    return size;
}

/// libcurl goes by the last size that is stated, and by the beginning of a list.
bool isSizeAmbiguous(CURL* transfer)
{
    const std::int64_t size = bodySizeOf(transfer);
    const std::vector<std::string> values = headersOf(transfer, "Content-Length");
    return size >= 0 && std::any_of(values.begin(), values.end(),
                                    [wanted = std::to_string(size)](const std::string& value) {
                                        return value != wanted;
                                    });
}

/// @return the size of the whole file, when the body is all of it from that byte on; 0 for any
///         other range, or none
std::uint64_t wholeSizeOf(CURL* transfer, std::uint64_t offset)
{
    const std::string value = headerOf(transfer, "Content-Range");
    const std::size_t slash = value.find('/');
    const std::uint64_t size =
        slash == value.npos ? 0 : std::strtoull(value.c_str() + slash + 1, nullptr, 10);
    // Compared as a whole, so that nothing else in it can be misread.
    const std::string wanted = "bytes " + std::to_string(offset) + "-" + std::to_string(size - 1) +
                               "/" + std::to_string(size);
    return size > offset && value == wanted ? size : 0;
}

}  // namespace

DownloadStatus DownloadAttempt::run(std::string address)
{
    for (int redirections = 0; redirections <= kMostRedirections; ++redirections) {
        const DownloadStatus result = request(address);
        if (redirection_.empty()) {
            return result;
        }
        if (!mayLead(address, redirection_)) {
            return end(kRefused, "the server redirects to another protocol");
        }
        address = redirection_;
    }
    return end(kRefused, "the server redirects too often");
}

DownloadStatus DownloadAttempt::request(const std::string& address)
{
    offset_ = part_.validator().empty() ? 0 : part_.size();
    wholeSize_ = 0;
    dropped_ = 0;
    body_ = Body::kNotSeen;
    redirection_.clear();
    error_[0] = '\0';

    const std::unique_ptr<CURL, ReleaseWith<&curl_easy_cleanup>> transfer(curl_easy_init());
    if (transfer == nullptr) {
        return end(kDownloadFailed, "no transfer can be made");
    }
    transfer_ = transfer.get();
    return resultOf(perform(address));
}

CURLcode DownloadAttempt::perform(const std::string& address)
{
    curl_easy_setopt(transfer_, CURLOPT_URL, address.c_str());
    curl_easy_setopt(transfer_, CURLOPT_PROTOCOLS_STR, "http,https");
    // The settings decide where packages come from, not the environment.
    curl_easy_setopt(transfer_, CURLOPT_PROXY, "");
    // In this version the head tells whether a body is whole.
    curl_easy_setopt(transfer_, CURLOPT_HTTP_VERSION, CURL_HTTP_VERSION_1_1);
    curl_easy_setopt(transfer_, CURLOPT_USERAGENT, "quillon");
    curl_easy_setopt(transfer_, CURLOPT_NOSIGNAL, 1L);
    // An unfinished look-up of a name must not hold up the end of the process.
    curl_easy_setopt(transfer_, CURLOPT_QUICK_EXIT, 1L);
    curl_easy_setopt(transfer_, CURLOPT_CONNECTTIMEOUT,
                     static_cast<long>(settings_.connectTimeout.count()));
    curl_easy_setopt(transfer_, CURLOPT_LOW_SPEED_LIMIT, kSlowestBytesPerSecond);
    curl_easy_setopt(transfer_, CURLOPT_LOW_SPEED_TIME,
                     static_cast<long>(settings_.stallTimeout.count()));
    if (!settings_.caFile.empty()) {
        curl_easy_setopt(transfer_, CURLOPT_CAINFO, settings_.caFile.c_str());
    }
    curl_easy_setopt(transfer_, CURLOPT_ERRORBUFFER, error_);
    curl_easy_setopt(transfer_, CURLOPT_WRITEFUNCTION, onBody);
    curl_easy_setopt(transfer_, CURLOPT_WRITEDATA, this);
    curl_easy_setopt(transfer_, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(transfer_, CURLOPT_XFERINFOFUNCTION, onProgress);
    curl_easy_setopt(transfer_, CURLOPT_XFERINFODATA, this);

    std::unique_ptr<curl_slist, ReleaseWith<&curl_slist_free_all>> headers;
    if (offset_ > 0) {
        const std::string range = std::to_string(offset_) + "-";
        const std::string condition = "If-Range: " + part_.validator();
        headers.reset(curl_slist_append(nullptr, condition.c_str()));
        if (headers == nullptr) {
            throw std::bad_alloc();
        }
        curl_easy_setopt(transfer_, CURLOPT_RANGE, range.c_str());
        curl_easy_setopt(transfer_, CURLOPT_HTTPHEADER, headers.get());
    }
    return curl_easy_perform(transfer_);
}

DownloadStatus DownloadAttempt::resultOf(CURLcode code)
{
    if (cancel_.requested()) {
        return end(kCancelled, "the process ends");
    }
    if (code == CURLE_OK && body_ == Body::kNotSeen) {
        takeHead();
    }
    if (body_ == Body::kDropped) {
        redirection_ = redirectionOf(transfer_);
        return result_;
    }
    if (code == CURLE_OK) {
        return checkSize();
    }
    const std::string text = error_[0] != '\0' ? error_ : curl_easy_strerror(code);
    if (code == CURLE_OUT_OF_MEMORY) {
        return end(kDownloadFailed, text);
    }
    return end(isFinal(code) ? kRefused : kUnreachable, text);
}

DownloadStatus DownloadAttempt::checkSize()
{
    if (part_.size() == 0) {
        return end(kRefused, "the package is empty");
    }
    if (wholeSize_ == 0 || part_.size() == wholeSize_) {
        return kDownloaded;
    }
    const char* reason = "the server sent another number of bytes than it said";
    return part_.size() > wholeSize_ ? startOver(reason) : end(kUnreachable, reason);
}

std::size_t DownloadAttempt::onBody(char* data, std::size_t /*one*/, std::size_t size, void* self)
{
    auto* attempt = static_cast<DownloadAttempt*>(self);
    try {
        attempt->takeBytes(data, size);
    } catch (const std::bad_alloc&) {
        attempt->body_ = Body::kDropped;
        attempt->result_ = kDownloadFailed;
        attempt->reason_.clear();
    }
    // A body that is of no use, such as an error page, ends the transfer. A short one of a
    // redirection is received to its end: only then does the transfer library tell where that
    // leads.
    const bool isOfNoUse = attempt->body_ == Body::kDropped &&
                           (attempt->dropped_ > kMostDropped || !isRedirection(attempt->transfer_));
    return isOfNoUse ? 0 : size;
}

int DownloadAttempt::onProgress(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t)
{
    return static_cast<DownloadAttempt*>(self)->cancel_.requested() ? 1 : 0;
}

void DownloadAttempt::takeBytes(const char* data, std::size_t size)
{
    if (body_ == Body::kNotSeen) {
        takeHead();
    }
    if (body_ == Body::kDropped) {
        dropped_ += size;
        return;
    }
    if (size > settings_.sizeLimit - part_.size()) {
        end(kTooLarge, "the package is larger than the size limit");
        return;
    }
    if (!part_.append(data, size)) {
        end(kNotStored, part_.failure());
    }
}

void DownloadAttempt::takeHead()
{
    constexpr long kOk = 200;
    constexpr long kPartialContent = 206;
    constexpr long kRangeNotSatisfiable = 416;
    const long status = statusOf(transfer_);
    if (status == kOk || (status == kPartialContent && offset_ > 0)) {
        if (isEncoded(transfer_)) {
            end(kRefused,
                "the server sends the package in a Content-Encoding, which was not asked for");
            return;
        }
        if (isSizeAmbiguous(transfer_)) {
            end(kRefused, "the server's Content-Length is ambiguous");
            return;
        }
        status == kOk ? takeWholeFile() : takeRest();
        return;
    }
    const std::string answer = "the server answers " + std::to_string(status);
    if (status == kRangeNotSatisfiable && offset_ > 0) {
        startOver(answer);
        return;
    }
    end(isTemporary(status) ? kUnreachable : kRefused, answer);
}

void DownloadAttempt::takeWholeFile()
{
    const std::int64_t size = bodySizeOf(transfer_);
    // The end of a connection could be that of the package, or a dropped one.
    if (size < 0 && !comesInChunks(transfer_)) {
        end(kRefused, "the server does not tell where the package ends");
        return;
    }
    if (size > static_cast<std::int64_t>(settings_.sizeLimit)) {
        end(kTooLarge, "the package is larger than the size limit");
        return;
    }
    if (!part_.restart(validatorOf(transfer_))) {
        end(kNotStored, part_.failure());
        return;
    }
    body_ = Body::kKept;
}

void DownloadAttempt::takeRest()
{
    const std::string validator = validatorOf(transfer_);
    const std::uint64_t size = wholeSizeOf(transfer_, offset_);
    if (size == 0 || (!validator.empty() && validator != part_.validator())) {
        startOver("the server sent another part than asked");
        return;
    }
    if (size > settings_.sizeLimit) {
        end(kTooLarge, "the package is larger than the size limit");
        return;
    }
    wholeSize_ = size;
    body_ = Body::kKept;
}

/// What has arrived is of no use to the next attempt.
DownloadStatus DownloadAttempt::startOver(const std::string& reason)
{
    return part_.restart("") ? end(kUnreachable, reason) : end(kNotStored, part_.failure());
}

DownloadStatus DownloadAttempt::end(DownloadStatus result, std::string reason)
{
    body_ = Body::kDropped;
    result_ = result;
    reason_ = std::move(reason);
    return result;
}

}  // namespace quillon
