#include "helpers/mount/server.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>
#include <utility>
#include <vector>

#include "helpers/mount/mount-log.h"
#include "helpers/shared/failure.h"

namespace quillon::privileged {

namespace {

constexpr std::chrono::seconds kPauseWithoutMeans(1);

bool isWellFormed(const Request& request, ssize_t size)
{
    const char* const textEnd = request.text + kTextSize;
    const char* const nul = std::find(request.text, textEnd, '\0');
    const bool kindIsKnown = request.kind >= Kind::kMount && request.kind <= Kind::kUnmount;
    return size == static_cast<ssize_t>(sizeof request) && request.version == kProtocolVersion &&
           kindIsKnown && nul != textEnd &&
           std::all_of(nul, textEnd, [](char c) { return c == '\0'; });
}

bool hasGone(int connection)
{
    pollfd peer = {connection, 0, 0};
    return poll(&peer, 1, 0) == 1 && (peer.revents & POLLHUP) != 0;
}

}  // namespace

Server::Server(int listener, Callers callers, Handler handler)
    : listener_(listener), callers_(callers), handler_(std::move(handler))
{
}

void Server::runUntilReadable(int end)
{
    for (;;) {
        std::vector<pollfd> waiting = {{end, POLLIN, 0}, {listener_, POLLIN, 0}};
        for (const Client& client : clients_) {
            waiting.push_back({client.connection.get(), POLLIN, 0});
        }
        if (poll(waiting.data(), waiting.size(), timeout()) < 0 && errno != EINTR) {
            failWithErrno("poll");
        }
        if (waiting[0].revents != 0) {
            return;
        }
        const Clock::time_point looked = Clock::now();
        auto client = clients_.begin();
        for (std::size_t i = 2; i < waiting.size(); ++i) {
            const auto current = client++;
            if (waiting[i].revents == 0) {
                continue;
            }
            if (serve(*current)) {
                current->heard = Clock::now();
                clients_.splice(clients_.end(), clients_, current);
            } else {
                clients_.erase(current);
            }
        }
        // As of the look: whoever has spoken while others were handled is heard at the next one.
        dropSilent(looked);
        if (waiting[1].revents != 0) {
            acceptOne();
        }
    }
}

/// Until the first client has been silent for too long, in milliseconds; -1 without any.
int Server::timeout() const
{
    if (clients_.empty()) {
        return -1;
    }
    const auto left = clients_.front().heard + kLongestSilence - Clock::now();
    const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(left).count();
    return static_cast<int>(std::max<decltype(milliseconds)>(milliseconds, 0));
}

void Server::dropSilent(Clock::time_point looked)
{
    const auto limit = looked - kLongestSilence;
    while (!clients_.empty() && clients_.front().heard <= limit) {
        PRIVILEGED_LOGI("process %d is silent, its connection ends", clients_.front().peer.pid);
        clients_.pop_front();
    }
}

void Server::acceptOne()
{
    UniqueFd connection(accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!connection) {
        if (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED) {
            return;  // it has gone again
        }
        PRIVILEGED_LOGE("a client cannot be accepted: %s", std::strerror(errno));
        std::this_thread::sleep_for(kPauseWithoutMeans);  // it is still waiting at the next look
        return;
    }
    try {
        Peer peer = peerOf(connection.get());
        if (clients_.size() >= kMostConnections) {
            PRIVILEGED_LOGE("too many clients, the connection of process %d ends",
                            clients_.front().peer.pid);
            clients_.pop_front();
        }
        clients_.push_back({std::move(connection), std::move(peer), Clock::now()});
    } catch (const Failure& failure) {
        PRIVILEGED_LOGE("a client is refused: %s", failure.what());
    }
}

/// @return false when the connection is over
bool Server::serve(Client& client)
{
    Request request;
    const int connection = client.connection.get();
    const ssize_t size = recv(connection, &request, sizeof request, MSG_DONTWAIT | MSG_TRUNC);
    if (size <= 0) {
        return false;
    }
    if (!isWellFormed(request, size)) {
        PRIVILEGED_LOGE("process %d of user %u sent no request, %zd bytes", client.peer.pid,
                        client.peer.user, size);
        return false;
    }
    // Done now, it would surprise whoever has waited in vain and gone on without it.
    if (hasGone(connection)) {
        PRIVILEGED_LOGE("process %d does not wait for its request any more", client.peer.pid);
        return false;
    }
    Answer answer;
    answer.result = resultFor(client, request);
    const bool sent = send(connection, &answer, sizeof answer, MSG_DONTWAIT | MSG_NOSIGNAL) ==
                      static_cast<ssize_t>(sizeof answer);
    // Whoever may not ask shall not take the place of somebody who may.
    return sent && mayAsk(callers_, client.peer);
}

int Server::resultFor(const Client& client, const Request& request)
{
    if (!mayAsk(callers_, client.peer)) {
        PRIVILEGED_LOGE("process %d refused: user %u may not ask", client.peer.pid,
                        client.peer.user);
        return EPERM;
    }
    return handler_(request.kind, request.text);
}

}  // namespace quillon::privileged
