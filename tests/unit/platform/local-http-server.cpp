#include "local-http-server.h"
#include "support/wait.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <sstream>
#include <stdexcept>
#include <utility>

namespace {

constexpr int kTick = 20;  // milliseconds after which a waiting thread looks whether all is over

bool waitFor(int fd, short what, const std::atomic<bool>& ending)
{
    while (!ending) {
        pollfd polled = {fd, what, 0};
        if (poll(&polled, 1, kTick) > 0) {
            return true;
        }
    }
    return false;
}

}  // namespace

std::string HttpRequest::header(const std::string& name) const
{
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.size() > name.size() && line[name.size()] == ':' &&
            strncasecmp(line.c_str(), name.c_str(), name.size()) == 0) {
            const std::size_t start = line.find_first_not_of(' ', name.size() + 1);
            return line.substr(start, line.find('\r') - start);
        }
    }
    return "";
}

std::size_t HttpRequest::offset() const
{
    const std::string range = header("Range");
    return range.empty() ? 0 : std::stoul(range.substr(range.find('=') + 1));
}

bool HttpConnection::send(const std::string& bytes)
{
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        if (!waitFor(fd_, POLLOUT, ending_)) {
            return false;
        }
        const ssize_t count =
            ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count < 0 && errno != EAGAIN) {
            return false;
        }
        sent += count < 0 ? 0 : static_cast<std::size_t>(count);
    }
    return true;
}

void HttpConnection::stall()
{
    char byte = 0;
    while (waitFor(fd_, POLLIN, ending_)) {
        if (recv(fd_, &byte, 1, 0) <= 0) {
            return;
        }
    }
}

LocalHttpServer::LocalHttpServer(Answer answer)
    : answer_(std::move(answer)), listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in local = {};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(listener_, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0 ||
        listen(listener_, SOMAXCONN) != 0) {
        throw std::runtime_error("no server can listen on 127.0.0.1");
    }
    accepting_ = std::thread(&LocalHttpServer::accept, this);
}

LocalHttpServer::~LocalHttpServer()
{
    ending_ = true;
    accepting_.join();
    for (std::thread& connection : connections_) {
        connection.join();
    }
    close(listener_);
}

std::string LocalHttpServer::address() const
{
    sockaddr_in local = {};
    socklen_t size = sizeof local;
    getsockname(listener_, reinterpret_cast<sockaddr*>(&local), &size);
    return "http://127.0.0.1:" + std::to_string(ntohs(local.sin_port)) + "/";
}

std::vector<HttpRequest> LocalHttpServer::requests() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
}

void LocalHttpServer::waitForRequests(std::size_t count) const
{
    quillon::test::waitFor("request " + std::to_string(count),
                           [this, count] { return requests().size() >= count; });
}

void LocalHttpServer::accept()
{
    while (waitFor(listener_, POLLIN, ending_)) {
        const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) {
            connections_.emplace_back(&LocalHttpServer::serve, this, fd);
        }
    }
}

void LocalHttpServer::serve(int fd)
{
    HttpRequest request;
    char byte = 0;
    while (request.text.find("\r\n\r\n") == std::string::npos && waitFor(fd, POLLIN, ending_) &&
           recv(fd, &byte, 1, 0) == 1) {
        request.text.push_back(byte);
    }
    std::string method;
    std::istringstream(request.text) >> method >> request.path;
    if (!request.path.empty()) {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            requests_.push_back(request);
        }
        HttpConnection connection(fd, ending_);
        answer_(request, connection);
    }
    close(fd);
}

std::string httpHead(const std::string& status, const std::vector<std::string>& lines)
{
    std::string head = "HTTP/1.1 " + status + "\r\n";
    for (const std::string& line : lines) {
        head += line + "\r\n";
    }
    return head + "Connection: close\r\n\r\n";
}
