#pragma once

#include <chrono>

#include "helpers/shared/callers.h"

namespace quillon::storage {

/// How long a client that has connected may take to ask.
inline constexpr std::chrono::seconds kLongestSilence(5);

/// Answers the one request of a client. Looks at who it is first: of somebody who may not ask,
/// nothing is read. A request that is none ends the connection without an answer. What was done,
/// and why something was not, is told on the log.
/// @param connection  a connected SOCK_SEQPACKET socket
/// @throws Failure when it is anything else; std::bad_alloc
void serveClient(int connection, const Callers& callers);

}  // namespace quillon::storage
