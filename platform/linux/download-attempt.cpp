#include "platform/linux/download-attempt.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

#include "platform/linux/download-reply.h"

namespace quillon {

namespace {

constexpr int kMostRedirections = 5;
constexpr std::size_t kMostDropped = 65536;
constexpr long kSlowestBytesPerSecond = 100;

struct EndTransfer
{
    void operator()(CURL* transfer) const { curl_easy_cleanup(transfer); }
};

struct FreeList
{
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

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

}  // namespace

AttemptResult DownloadAttempt::run(std::string address)
{
    for (int redirections = 0; redirections <= kMostRedirections; ++redirections) {
        const AttemptResult result = request(address);
        if (redirection_.empty()) {
            return result;
        }
        if (!mayLead(address, redirection_)) {
            return end(AttemptResult::kRefused, "the server redirects to another protocol");
        }
        address = redirection_;
    }
    return end(AttemptResult::kRefused, "the server redirects too often");
}

AttemptResult DownloadAttempt::request(const std::string& address)
{
    offset_ = part_.validator().empty() ? 0 : part_.size();
    wholeSize_ = 0;
    dropped_ = 0;
    body_ = Body::kNotSeen;
    redirection_.clear();
    error_[0] = '\0';

    const std::unique_ptr<CURL, EndTransfer> transfer(curl_easy_init());
    if (transfer == nullptr) {
        return end(AttemptResult::kFailed, "no transfer can be made");
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

    std::unique_ptr<curl_slist, FreeList> headers;
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

AttemptResult DownloadAttempt::resultOf(CURLcode code)
{
    if (cancel_.requested()) {
        return end(AttemptResult::kCancelled, "the process ends");
    }
    if (code == CURLE_OK && body_ == Body::kNotSeen) {
        takeHead();
    }
    if (body_ == Body::kDropped) {
        redirection_ = DownloadReply(transfer_).redirectAddress();
        return result_;
    }
    if (code == CURLE_OK) {
        return checkSize();
    }
    const std::string text = error_[0] != '\0' ? error_ : curl_easy_strerror(code);
    if (code == CURLE_OUT_OF_MEMORY) {
        return end(AttemptResult::kFailed, text);
    }
    return end(isFinal(code) ? AttemptResult::kRefused : AttemptResult::kBrokeOff, text);
}

AttemptResult DownloadAttempt::checkSize()
{
    if (part_.size() == 0) {
        return end(AttemptResult::kRefused, "the package is empty");
    }
    if (wholeSize_ == 0 || part_.size() == wholeSize_) {
        return AttemptResult::kComplete;
    }
    if (part_.size() > wholeSize_ && !part_.restart("")) {
        return end(AttemptResult::kNotStored, std::strerror(errno));
    }
    return end(AttemptResult::kBrokeOff, "the server sent another number of bytes than it said");
}

std::size_t DownloadAttempt::onBody(char* data, std::size_t /*one*/, std::size_t size, void* self)
{
    auto* attempt = static_cast<DownloadAttempt*>(self);
    try {
        attempt->takeBytes(data, size);
    } catch (const std::bad_alloc&) {
        attempt->body_ = Body::kDropped;
        attempt->result_ = AttemptResult::kFailed;
        attempt->reason_.clear();
    }
    // A short body that is of no use, such as an error page, is received to the end: only then does
    // the transfer library tell where a redirection leads.
    return attempt->dropped_ > kMostDropped ? 0 : size;
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
        end(AttemptResult::kTooLarge, "the package is larger than the size limit");
        return;
    }
    if (!part_.append(data, size)) {
        end(AttemptResult::kNotStored, std::strerror(errno));
    }
}

void DownloadAttempt::takeHead()
{
    constexpr long kOk = 200;
    constexpr long kPartialContent = 206;
    constexpr long kRangeNotSatisfiable = 416;
    const long status = DownloadReply(transfer_).status();
    if (status == kOk) {
        takeWholeFile();
        return;
    }
    if (status == kPartialContent && offset_ > 0) {
        takeRest();
        return;
    }
    const std::string answer = "the server answers " + std::to_string(status);
    if (status == kRangeNotSatisfiable && offset_ > 0) {
        part_.restart("") ? end(AttemptResult::kBrokeOff, answer)
                          : end(AttemptResult::kNotStored, std::strerror(errno));
        return;
    }
    end(isTemporary(status) ? AttemptResult::kBrokeOff : AttemptResult::kRefused, answer);
}

void DownloadAttempt::takeWholeFile()
{
    const DownloadReply reply(transfer_);
    if (!reply.tellsItsEnd()) {
        end(AttemptResult::kRefused, "the server does not tell where the package ends");
        return;
    }
    if (reply.bodySize() > static_cast<std::int64_t>(settings_.sizeLimit)) {
        end(AttemptResult::kTooLarge, "the package is larger than the size limit");
        return;
    }
    if (!part_.restart(reply.validator())) {
        end(AttemptResult::kNotStored, std::strerror(errno));
        return;
    }
    body_ = Body::kKept;
}

void DownloadAttempt::takeRest()
{
    const DownloadReply reply(transfer_);
    const std::string validator = reply.validator();
    const std::uint64_t size = reply.wholeSize(offset_);
    if (size == 0 || (!validator.empty() && validator != part_.validator())) {
        part_.restart("") ? end(AttemptResult::kBrokeOff, "the server sent another part than asked")
                          : end(AttemptResult::kNotStored, std::strerror(errno));
        return;
    }
    if (size > settings_.sizeLimit) {
        end(AttemptResult::kTooLarge, "the package is larger than the size limit");
        return;
    }
    wholeSize_ = size;
    body_ = Body::kKept;
}

AttemptResult DownloadAttempt::end(AttemptResult result, std::string reason)
{
    body_ = Body::kDropped;
    result_ = result;
    reason_ = std::move(reason);
    return result;
}

}  // namespace quillon
