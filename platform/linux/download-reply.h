#ifndef QUILLON_PLATFORM_LINUX_DOWNLOAD_REPLY_H
#define QUILLON_PLATFORM_LINUX_DOWNLOAD_REPLY_H

#include <curl/curl.h>

#include <cstdint>
#include <string>

namespace quillon {

/// The head of the reply that a transfer is just receiving, or has received last.
/// Thread: the transfer's own. Throws std::bad_alloc.
class DownloadReply
{
public:
    explicit DownloadReply(CURL* transfer) : transfer_(transfer) {}

    /// @return the status, for example 200; 0 while there is none
    long status() const;
    /// @return where a redirection leads, as an absolute address; empty when nowhere
    std::string redirectAddress() const;
    /// @return the ETag, if it is a strong one, else the Last-Modified date, else ""
    std::string validator() const;
    /// @return false when only the end of the connection would tell the end of the body, so that a
    ///         dropped connection could not be told from a whole body.
    bool tellsItsEnd() const;
    /// @return the size that the head states; -1 when it states none
    std::int64_t bodySize() const;
    /// @return the size of the whole file, when the head says that the body is all of it from that
    ///         byte on; 0 for any other range, or none
    std::uint64_t wholeSize(std::uint64_t offset) const;

private:
    std::string header(const char* name) const;

    CURL* transfer_;
};

}  // namespace quillon

#endif
