#ifndef QUILLON_PLATFORM_LINUX_DOWNLOAD_ATTEMPT_H
#define QUILLON_PLATFORM_LINUX_DOWNLOAD_ATTEMPT_H

#include <curl/curl.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/linux/download-cancel.h"
#include "platform/linux/download-part.h"
#include "platform/linux/download-settings.h"

namespace quillon {

enum class AttemptResult {
    kComplete,   ///< the part holds the whole package
    kBrokeOff,   ///< worth another attempt
    kRefused,    ///< another attempt would end in the same way
    kTooLarge,   ///< larger than the size limit
    kNotStored,  ///< the part could not be written
    kFailed,     ///< memory or the transfer library failed
    kCancelled,
};

/// One attempt to fetch what a part still lacks: a request, and those that redirections lead to.
/// Thread: one object, one thread. Throws std::bad_alloc.
class DownloadAttempt
{
public:
    /// The three have to outlive the object.
    DownloadAttempt(const DownloadSettings& settings, DownloadPart& part,
                    const DownloadCancel& cancel)
        : settings_(settings), part_(part), cancel_(cancel)
    {
    }

    AttemptResult run(std::string address);
    /// Why run() did not end with kComplete, for people.
    const std::string& reason() const { return reason_; }

private:
    enum class Body { kNotSeen, kKept, kDropped };

    static std::size_t onBody(char* data, std::size_t one, std::size_t size, void* self);
    static int onProgress(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t);

    AttemptResult request(const std::string& address);
    CURLcode perform(const std::string& address);
    void takeHead();
    void takeWholeFile();
    void takeRest();
    void takeBytes(const char* data, std::size_t size);
    AttemptResult resultOf(CURLcode code);
    AttemptResult checkSize();
    AttemptResult end(AttemptResult result, std::string reason);

    const DownloadSettings& settings_;
    DownloadPart& part_;
    const DownloadCancel& cancel_;

    CURL* transfer_ = nullptr;          // while a request runs
    std::uint64_t offset_ = 0;          // of the first byte that the request asks for
    std::uint64_t wholeSize_ = 0;       // of the package; 0 while no reply has stated it
    std::size_t dropped_ = 0;           // bytes of a body that is of no use
    Body body_ = Body::kNotSeen;        // what becomes of the reply's body
    std::string redirection_;           // where the reply leads, or empty
    char error_[CURL_ERROR_SIZE] = "";  // the transfer library's own words
    AttemptResult result_ = AttemptResult::kComplete;
    std::string reason_;
};

}  // namespace quillon

#endif
