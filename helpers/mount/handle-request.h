#pragma once

#include <string_view>

#include "platform/protocols/mount-protocol.h"

namespace quillon::privileged {

/// Judges a request and does what it asks for. Says in the log what was done, and why if it was
/// not. Not for use by two threads.
/// @return 0 when done; EACCES when the policy refuses it; else what went wrong, as in errno
int handleRequest(Kind kind, std::string_view text);

}  // namespace quillon::privileged
