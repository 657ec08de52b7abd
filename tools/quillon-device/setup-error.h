#ifndef QUILLON_TOOLS_QUILLON_DEVICE_SETUP_ERROR_H
#define QUILLON_TOOLS_QUILLON_DEVICE_SETUP_ERROR_H

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
void require(bool succeeded, const std::string& what);

/// Writes "quillon-device: <line>" and a newline to standard error, in one piece.
void complain(const std::string& line);

}  // namespace quillon::device

#endif  // QUILLON_TOOLS_QUILLON_DEVICE_SETUP_ERROR_H
