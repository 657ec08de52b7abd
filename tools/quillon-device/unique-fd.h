#ifndef QUILLON_TOOLS_QUILLON_DEVICE_UNIQUE_FD_H
#define QUILLON_TOOLS_QUILLON_DEVICE_UNIQUE_FD_H

#include <unistd.h>

#include <utility>

namespace quillon::device {

/// Owns a file descriptor and closes it; -1 stands for none.
class UniqueFd
{
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

    void reset()
    {
        if (fd_ >= 0) {
            ::close(std::exchange(fd_, -1));
        }
    }

private:
    int fd_ = -1;
};

}  // namespace quillon::device

#endif  // QUILLON_TOOLS_QUILLON_DEVICE_UNIQUE_FD_H
