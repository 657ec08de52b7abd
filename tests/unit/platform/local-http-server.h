#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

/// What a client has asked for.
struct HttpRequest
{
    std::string path;
    std::string text;  ///< request line and headers as they came

    /// The header's value; empty when the request has none of that name.
    std::string header(const std::string& name) const;
    /// The first byte that its Range header asks for; 0 without one.
    std::size_t offset() const;
};

/// The server's end of one connection; it is closed when the answer returns.
class HttpConnection
{
public:
    HttpConnection(int fd, const std::atomic<bool>& ending) : fd_(fd), ending_(ending) {}

    /// @return false when the client is gone
    bool send(const std::string& bytes);
    /// Sends nothing more, and comes back when the client or the server goes.
    void stall();

private:
    int fd_;
    const std::atomic<bool>& ending_;
};

/// An HTTP server that answers as badly as a test wants it to: each request on a connection and a
/// thread of its own, each byte of the answer written by the test.
class LocalHttpServer
{
public:
    using Answer = std::function<void(const HttpRequest& request, HttpConnection& connection)>;

    explicit LocalHttpServer(Answer answer);
    ~LocalHttpServer();
    LocalHttpServer(const LocalHttpServer&) = delete;
    LocalHttpServer& operator=(const LocalHttpServer&) = delete;

    /// "http://127.0.0.1:PORT/"
    std::string address() const;
    /// All requests until now, in their order.
    std::vector<HttpRequest> requests() const;
    /// Waits until that many requests have come; fails the test after ten seconds.
    void waitForRequests(std::size_t count) const;

private:
    void accept();
    void serve(int fd);

    Answer answer_;
    int listener_;
    std::atomic<bool> ending_{false};
    mutable std::mutex mutex_;
    std::vector<HttpRequest> requests_;
    std::vector<std::thread> connections_;
    std::thread accepting_;
};

/// "HTTP/1.1 STATUS\r\n", each of the lines, and the empty line that ends a head.
std::string httpHead(const std::string& status, const std::vector<std::string>& lines);
