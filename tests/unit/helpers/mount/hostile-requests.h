#pragma once

#include <string>
#include <vector>

#include "platform/protocols/mount-protocol.h"

namespace quillon::test {

/// A request that must not be granted, and what stands against it. The text holds no NUL and fits
/// into a packet.
struct HostileRequest
{
    privileged::Kind kind;
    std::string text;
    std::string expected;  ///< the reason, for people
};

/// More than 200 of them, each text once a kind.
std::vector<HostileRequest> hostileRequests();

/// Requests that are granted as far as the policy goes.
std::string goodMount();
std::string goodNode();
std::string goodUnmount();

}  // namespace quillon::test
