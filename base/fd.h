#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <utility>

namespace quillon {

/// Owns one file descriptor and closes it. -1 stands for none. Keeps errno.
class UniqueFd
{
public:
    explicit UniqueFd(int fd = -1) : fd_(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        if (this != &other) {
            reset();
            fd_ = other.release();
        }
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    explicit operator bool() const { return fd_ >= 0; }
    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }

    void reset()
    {
        if (fd_ >= 0) {
            const int callersErrno = errno;
            close(release());
            errno = callersErrno;
        }
    }

private:
    int fd_;
};

/// Makes a system call, and again as long as signals interrupt it.
/// @return what the call returns; below 0 with its errno
template <typename Call>
auto uninterrupted(Call call)
{
    for (;;) {
        const auto result = call();
        if (result >= 0 || errno != EINTR) {
            return result;
        }
    }
}

/// Gives a handle back with the function that belongs to its type:
/// `std::unique_ptr<BIO, ReleaseWith<&BIO_free_all>>`.
template <auto release>
struct ReleaseWith
{
    template <typename Handle>
    void operator()(Handle* handle) const
    {
        static_cast<void>(release(handle));
    }
};

/// An open stream; empty when opening failed.
using UniqueFile = std::unique_ptr<std::FILE, ReleaseWith<&std::fclose>>;

}  // namespace quillon
