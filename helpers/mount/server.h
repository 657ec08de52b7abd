#pragma once

#include <chrono>
#include <functional>
#include <list>
#include <string_view>

#include "base/fd.h"
#include "helpers/shared/callers.h"
#include "platform/protocols/mount-protocol.h"

namespace quillon::privileged {

/// How many clients may be connected, and how long one may be silent. When one more comes, the one
/// that was silent longest goes, so that nobody can hold all the places.
inline constexpr std::size_t kMostConnections = 32;
inline constexpr std::chrono::seconds kLongestSilence(10);

/// Answers clients on one thread: one request after another, nobody waits for a silent client.
class Server
{
public:
    /// What a request of a client that may ask is given to. @return the answer's result
    using Handler = std::function<int(Kind kind, std::string_view text)>;

    /// @param listener  listening, non-blocking, SOCK_SEQPACKET; stays the caller's
    Server(int listener, Callers callers, Handler handler);

    /// Serves until a descriptor becomes readable, then finishes the request at hand.
    /// @throws Failure
    void runUntilReadable(int end);

private:
    using Clock = std::chrono::steady_clock;

    struct Client
    {
        UniqueFd connection;
        Peer peer;
        Clock::time_point heard;
    };

    int timeout() const;
    void acceptOne();
    void dropSilent(Clock::time_point looked);
    bool serve(Client& client);
    int resultFor(const Client& client, const Request& request);

    int listener_;
    Callers callers_;
    Handler handler_;
    std::list<Client> clients_;  // whoever was silent longest comes first
};

}  // namespace quillon::privileged
