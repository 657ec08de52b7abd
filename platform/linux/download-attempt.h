#pragma once

#include <curl/curl.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/linux/download-cancel.h"
#include "platform/linux/download-part.h"
#include "platform/linux/download-settings.h"

namespace quillon {

/// How a download or one attempt at it ends: the status values of ABM_DownloadAppBinary's callback,
/// and one that is never told.
enum DownloadStatus : int {
    kDownloaded = 0,
    kDownloadFailed = -1,  ///< memory or another means of this process ran out
    kUnreachable = -2,     ///< it broke off; the next attempt goes on where this ended
    kRefused = -3,         ///< the server does not give the package, or is not to be trusted
    kTooLarge = -4,        ///< larger than the size limit
    kNotStored = -5,       ///< the packages' directory cannot be written
    kBusy = -6,            ///< another process of this user is downloading this package
    kCancelled = -100,     ///< the process ends
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

    DownloadStatus run(std::string address);
    /// Why run() did not end with kDownloaded, for people.
    const std::string& reason() const { return reason_; }

private:
    enum class Body { kNotSeen, kKept, kDropped };

    static std::size_t onBody(char* data, std::size_t one, std::size_t size, void* self);
    static int onProgress(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t);

    DownloadStatus request(const std::string& address);
    CURLcode perform(const std::string& address);
    void takeHead();
    void takeWholeFile();
    void takeRest();
    void takeBytes(const char* data, std::size_t size);
    DownloadStatus resultOf(CURLcode code);
    DownloadStatus checkSize();
    DownloadStatus startOver(const std::string& reason);
    DownloadStatus end(DownloadStatus result, std::string reason);

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
    DownloadStatus result_ = kDownloaded;
    std::string reason_;
};

}  // namespace quillon
