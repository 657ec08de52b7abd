#include "platform/privileged.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "captured-stderr.h"
#include "platform/protocols/mount-protocol.h"
#include "support/texts.h"

namespace {

using quillon::test::expectTexts;
using quillon::test::like;

using quillon::privileged::Answer;
using quillon::privileged::Kind;
using quillon::privileged::kTextSize;
using quillon::privileged::Request;

constexpr int kBufferSize = 1024;

/// Takes the helper's place at its socket; each connection has one request, and `behave` decides
/// what comes back on it.
class FakeHelper
{
public:
    using Behaviour = std::function<void(int connection, const Request& request)>;

    explicit FakeHelper(Behaviour behave) : behave_(std::move(behave))
    {
        std::filesystem::create_directories(
            std::filesystem::path(QUILLON_PRIVILEGED_SOCKET).parent_path());
        socket_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, QUILLON_PRIVILEGED_SOCKET);
        EXPECT_EQ(bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(socket_, 100), 0);
        thread_ = std::thread([this] { serve(); });
    }
    ~FakeHelper()
    {
        shutdown(socket_, SHUT_RDWR);
        thread_.join();
        close(socket_);
        unlink(QUILLON_PRIVILEGED_SOCKET);
    }
    FakeHelper(const FakeHelper&) = delete;
    FakeHelper& operator=(const FakeHelper&) = delete;

    /// Kind and text of all requests so far.
    std::vector<std::string> requests() const
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return requests_;
    }

private:
    void serve()
    {
        for (int connection = -1; (connection = accept(socket_, nullptr, nullptr)) >= 0;) {
            Request request;
            if (recv(connection, &request, sizeof request, 0) == sizeof request) {
                {
                    const std::lock_guard<std::mutex> lock(mutex_);
                    requests_.push_back(std::to_string(static_cast<int>(request.kind)) + " " +
                                        request.text);
                }
                behave_(connection, request);
            }
            close(connection);
        }
    }

    Behaviour behave_;
    int socket_ = -1;
    mutable std::mutex mutex_;
    std::vector<std::string> requests_;
    std::thread thread_;
};

FakeHelper::Behaviour answers(int result)
{
    return [result](int connection, const Request&) {
        Answer answer;
        answer.result = result;
        send(connection, &answer, sizeof answer, 0);
    };
}

FakeHelper::Behaviour sends(const std::string& bytes)
{
    return [bytes](int connection, const Request&) {
        send(connection, bytes.data(), bytes.size(), 0);
    };
}

std::string bytesOf(const Answer& answer)
{
    return {reinterpret_cast<const char*>(&answer), sizeof answer};
}

int mount(const std::string& text, int* result)
{
    std::vector<char> buffer(kBufferSize);
    text.copy(buffer.data(), buffer.size());
    return PS_Mount(buffer.data(), kBufferSize, 0, result);
}

std::size_t openDescriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

TEST(PrivilegedClient, FailsAndSaysOnceThatThereIsNoHelper)
{
    unsetenv("JOURNAL_STREAM");
    const CapturedStderr captured;
    int result = 0;
    for (int attempt = 0; attempt < 3; ++attempt) {
        result = errno = 0;
        EXPECT_EQ(mount("x", &result), -1);
        EXPECT_EQ(result, -1);
        EXPECT_EQ(errno, ENOENT);
    }
    EXPECT_EQ(PS_Mknod("x", 2, 0, &result), -1);
    EXPECT_EQ(PS_Umount("x", 1, 0, &result), -1);
    expectTexts(captured.lines(),
                {like("QUILLON-PLATFORM E privileged.cpp: *PS_Mount: no privileged helper at "
                      "/run/quillon/privileged.sock: No such file*")});
}

TEST(PrivilegedClient, HandsEachTextOverAsItIs)
{
    const FakeHelper helper(answers(0));
    const std::string node = "-m 0660 -Z * /dev/loop8  b 7 8";
    char buffer[kBufferSize] = {};
    node.copy(buffer, sizeof buffer);
    int result = -5;
    EXPECT_EQ(mount("-o a b c", &result), 0);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(PS_Mknod(buffer, kBufferSize, 0, &result), 0);
    EXPECT_EQ(PS_Umount("/some/place", 11, 0, &result), 0);
    expectTexts(helper.requests(), {"1 -o a b c", "2 " + node, "3 /some/place"});
}

TEST(PrivilegedClient, TakesNoMoreOfADirectoryThanItsLength)
{
    const FakeHelper helper(answers(0));
    int result = -5;
    EXPECT_EQ(PS_Umount("/some/place", 5, 0, &result), 0);
    EXPECT_EQ(PS_Umount("/some", 1000, 0, &result), 0);
    expectTexts(helper.requests(), {"3 /some", "3 /some"});
}

TEST(PrivilegedClient, ReportsTheHelpersRefusalAsTheResult)
{
    const FakeHelper helper(answers(EACCES));
    int result = 0;
    EXPECT_EQ(mount("x", &result), 0);
    EXPECT_EQ(result, EACCES);
}

TEST(PrivilegedClient, NeedsNoPlaceForTheResult)
{
    EXPECT_EQ(mount("x", nullptr), -1);
    const FakeHelper helper(answers(0));
    EXPECT_EQ(mount("x", nullptr), 0);
}

TEST(PrivilegedClient, AsksAgainWhenAHelperHasCome)
{
    int result = 0;
    EXPECT_EQ(mount("x", &result), -1);
    const FakeHelper helper(answers(0));
    EXPECT_EQ(mount("x", &result), 0);
    EXPECT_EQ(result, 0);
}

TEST(PrivilegedClient, SendsNothingThatIsNoText)
{
    const FakeHelper helper(answers(0));
    const std::string longest(kTextSize - 1, 'a');
    const std::string tooLong(kTextSize, 'a');
    const auto sizeOf = [](const std::string& text) { return static_cast<int>(text.size()) + 1; };
    int result = 0;
    const auto expectRefused = [&](int returned) {
        EXPECT_EQ(returned, -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(result, -1);
        result = errno = 0;
    };
    expectRefused(PS_Mount(nullptr, kBufferSize, 0, &result));
    expectRefused(PS_Mount("x", 0, 0, &result));
    expectRefused(PS_Mount("x", -1, 0, &result));
    expectRefused(PS_Mount("", 1, 0, &result));
    expectRefused(PS_Mount("no end", 6, 0, &result));
    expectRefused(PS_Mount(tooLong.c_str(), sizeOf(tooLong), 0, &result));
    expectRefused(PS_Mknod(nullptr, kBufferSize, 0, &result));
    expectRefused(PS_Umount(nullptr, 3, 0, &result));
    expectRefused(PS_Umount("x", 0, 0, &result));
    expectRefused(PS_Umount("x", -3, 0, &result));
    expectRefused(PS_Umount(tooLong.c_str(), sizeOf(tooLong) - 1, 0, &result));
    expectTexts(helper.requests(), {});
    EXPECT_EQ(PS_Mount(longest.c_str(), sizeOf(longest), 0, &result), 0);
    expectTexts(helper.requests(), {"1 " + longest});
}

TEST(PrivilegedClient, BelievesNoAnswerOfAnotherShape)
{
    Answer otherVersion;
    otherVersion.version += 1;
    Answer negative;
    negative.result = -1;
    for (const std::string& bytes :
         {std::string("x"), bytesOf(Answer()).substr(0, 7), bytesOf(Answer()) + '\0',
          bytesOf(otherVersion), bytesOf(negative), std::string(5000, '\0')}) {
        const FakeHelper helper(sends(bytes));
        int result = 0;
        EXPECT_EQ(mount("x", &result), -1) << bytes.size();
        EXPECT_EQ(errno, EPROTO);
        EXPECT_EQ(result, -1);
    }
}

TEST(PrivilegedClient, OutlivesAHelperThatGoesWithoutAnAnswer)
{
    const FakeHelper helper([](int, const Request&) {});
    int result = 0;
    EXPECT_EQ(mount("x", &result), -1);
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_EQ(result, -1);
}

TEST(PrivilegedClient, WaitsHalfAMinuteForAnAnswerOnlyOnce)
{
    std::atomic<bool> done{false};
    const FakeHelper helper([&](int, const Request&) {
        while (!done) {
            usleep(1000);
        }
    });
    const auto waited = [] {
        const auto start = std::chrono::steady_clock::now();
        int result = 0;
        EXPECT_EQ(mount("x", &result), -1);
        EXPECT_EQ(errno, ETIMEDOUT);
        EXPECT_EQ(result, -1);
        return std::chrono::steady_clock::now() - start;
    };
    EXPECT_GE(waited(), std::chrono::seconds(29));
    EXPECT_LT(waited(), std::chrono::seconds(15)) << "it is still waited for as for one that works";
    done = true;
}

TEST(PrivilegedClient, GivesEachThreadItsOwnAnswer)
{
    const FakeHelper helper([](int connection, const Request& request) {
        answers(std::atoi(request.text))(connection, request);
    });
    std::vector<std::thread> threads;
    for (int thread = 1; thread <= 8; ++thread) {
        threads.emplace_back([thread] {
            for (int i = 0; i < 50; ++i) {
                int result = -1;
                EXPECT_EQ(mount(std::to_string(thread * 100 + i), &result), 0);
                EXPECT_EQ(result, thread * 100 + i);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(helper.requests().size(), 400U);
}

TEST(PrivilegedClient, LeavesNoDescriptorOpen)
{
    // Counted while there is no helper, whose own descriptors come and go on its thread.
    const auto ask = [](int times) {
        const FakeHelper helper(answers(0));
        for (int i = 0; i < times; ++i) {
            int result = 0;
            ASSERT_EQ(mount("x", &result), 0);
        }
    };
    ask(1);
    const std::size_t before = openDescriptors();
    ask(20);
    EXPECT_EQ(openDescriptors(), before);
}

TEST(PrivilegedClient, KeepsItsConnectionFromProgramsThatAreStarted)
{
    int notInherited = 0;
    int sockets = 0;
    const FakeHelper helper([&](int connection, const Request& request) {
        // The client waits for us now, with its connection open.
        for (int fd = 3; fd < 64; ++fd) {
            sockaddr_un name = {};
            socklen_t size = sizeof name;
            if (fd != connection &&
                getpeername(fd, reinterpret_cast<sockaddr*>(&name), &size) == 0 &&
                name.sun_family == AF_UNIX &&
                std::string(name.sun_path) == QUILLON_PRIVILEGED_SOCKET) {
                ++sockets;
                notInherited += fcntl(fd, F_GETFD) & FD_CLOEXEC;
            }
        }
        answers(0)(connection, request);
    });
    EXPECT_EQ(mount("x", nullptr), 0);
    EXPECT_EQ(sockets, 1);
    EXPECT_EQ(notInherited, FD_CLOEXEC);
}

}  // namespace
