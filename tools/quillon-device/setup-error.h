#pragma once

#include <cerrno>
#include <cstring>
#include <iostream>
#include <stdexcept>
#include <string>

namespace quillon::device {

/// A device could not be set up; what() is one line for people, without a trailing newline.
class SetupError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// Throws a SetupError "<what>: <text of errno>" unless a call has succeeded.
inline void require(bool succeeded, const std::string& what)
{
    if (!succeeded) {
        throw SetupError(what + ": " + std::strerror(errno));
    }
}

/// Writes "quillon-device: <line>" and a newline to standard error, in one piece.
inline void complain(const std::string& line)
{
    std::cerr << "quillon-device: " + line + "\n";
}

}  // namespace quillon::device
