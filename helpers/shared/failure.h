#pragma once

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace quillon {

/// Something could not be done; what() is one line for the log.
class Failure : public std::runtime_error
{
public:
    /// @param code  positive, as in errno; where the protocol has a result, the client gets it
    Failure(int code, const std::string& what) : std::runtime_error(what), code_(code) {}

    int code() const { return code_; }

private:
    int code_;
};

/// Throws a Failure with errno's code, "<what>: <text of errno>".
[[noreturn]] inline void failWithErrno(const std::string& what)
{
    const int code = errno;
    throw Failure(code, what + ": " + std::strerror(code));
}

}  // namespace quillon
