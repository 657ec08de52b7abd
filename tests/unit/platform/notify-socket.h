#pragma once

#include <string>
#include <vector>

/// Plays the service manager: listens on a datagram socket and names it in NOTIFY_SOCKET.
class NotifySocket
{
public:
    /// @param name  a path, or "@" and the rest of an abstract name
    explicit NotifySocket(const std::string& name);
    ~NotifySocket();
    NotifySocket(const NotifySocket&) = delete;
    NotifySocket& operator=(const NotifySocket&) = delete;

    /// All that has arrived since the last call.
    std::vector<std::string> received();

private:
    std::string name_;
    int fd_;
};
