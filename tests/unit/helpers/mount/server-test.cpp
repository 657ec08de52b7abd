#include "helpers/mount/server.h"
#include "base/fd.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "helpers/mount/listening-socket.h"
#include "support/process.h"
#include "support/texts.h"

using namespace quillon;
using namespace quillon::privileged;

namespace {

using quillon::test::expectTexts;
using quillon::test::inChildAs;

constexpr const char* kPath = "/run/quillon/server-test.sock";
constexpr int kHandled = 77;
constexpr const char* kSlow = "slow";  // takes the handler as long as a client may be silent

/// The server on a thread of its own, with a handler that only notes what it was given.
class PrivilegedServer : public testing::Test
{
protected:
    PrivilegedServer()
    {
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        endIn_ = UniqueFd(ends[0]);
        endOut_ = UniqueFd(ends[1]);
        thread_ = std::thread([this] {
            Server(socket_.get(), Callers(), [this](Kind kind, std::string_view text) {
                handled_.push_back(std::to_string(static_cast<int>(kind)) + std::string(text));
                if (text == kSlow) {
                    std::this_thread::sleep_for(kLongestSilence);
                }
                return kHandled;
            }).runUntilReadable(endIn_.get());
        });
    }
    ~PrivilegedServer() override { end(); }

    /// Ends the server. @return all that it has handled
    std::vector<std::string> end()
    {
        if (thread_.joinable()) {
            endOut_ = UniqueFd();
            thread_.join();
        }
        return handled_;
    }

    static UniqueFd client()
    {
        UniqueFd made(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, kPath);
        EXPECT_EQ(connect(made.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        return made;
    }

    static Request request(Kind kind, const std::string& text)
    {
        Request packet;
        packet.kind = kind;
        text.copy(packet.text, kTextSize);
        return packet;
    }

    /// @return the answer's result, -1 when the server ends the connection instead
    static int ask(const UniqueFd& connection, const void* packet, std::size_t size)
    {
        EXPECT_EQ(send(connection.get(), packet, size, MSG_NOSIGNAL), static_cast<ssize_t>(size));
        return answer(connection);
    }
    static int ask(const UniqueFd& connection, const Request& packet)
    {
        return ask(connection, &packet, sizeof packet);
    }

    static int answer(const UniqueFd& connection)
    {
        pollfd waiting = {connection.get(), POLLIN, 0};
        EXPECT_EQ(poll(&waiting, 1, 20000), 1) << "no answer";
        Answer answer;
        const ssize_t size = recv(connection.get(), &answer, sizeof answer, MSG_DONTWAIT);
        return size == static_cast<ssize_t>(sizeof answer) ? answer.result : -1;
    }

private:
    OwnSocket socket_{kPath, Callers()};
    UniqueFd endIn_;
    UniqueFd endOut_;
    std::thread thread_;
    std::vector<std::string> handled_;
};

}  // namespace

TEST_F(PrivilegedServer, DoesNothingForAClientThatDoesNotWaitAnyMore)
{
    const UniqueFd slow = client();
    const Request slowRequest = request(Kind::kMount, kSlow);
    ASSERT_EQ(send(slow.get(), &slowRequest, sizeof slowRequest, 0), ssize_t(sizeof slowRequest));
    {
        const UniqueFd impatient = client();
        const Request late = request(Kind::kMount, "late");
        ASSERT_EQ(send(impatient.get(), &late, sizeof late, 0), ssize_t(sizeof late));
    }
    EXPECT_EQ(ask(client(), request(Kind::kUnmount, "last")), kHandled);
    expectTexts(end(), {std::string("1") + kSlow, "3last"});
}

TEST_F(PrivilegedServer, AnswersEveryRequestOfAConnection)
{
    const UniqueFd connection = client();
    EXPECT_EQ(ask(connection, request(Kind::kMount, "a")), kHandled);
    EXPECT_EQ(ask(connection, request(Kind::kNode, "b")), kHandled);
    EXPECT_EQ(ask(connection, request(Kind::kUnmount, "c")), kHandled);
    expectTexts(end(), {"1a", "2b", "3c"});
}

TEST_F(PrivilegedServer, LetsNobodyWaitForASilentClient)
{
    std::vector<UniqueFd> silent;
    for (int i = 0; i < 10; ++i) {
        silent.push_back(client());
    }
    EXPECT_EQ(ask(client(), request(Kind::kMount, "a")), kHandled);
}

TEST_F(PrivilegedServer, GivesThePlaceOfWhoeverIsSilentLongestToANewClient)
{
    const UniqueFd active = client();
    ASSERT_EQ(ask(active, request(Kind::kMount, "early")), kHandled);
    std::vector<UniqueFd> silent;
    for (std::size_t i = 0; i < kMostConnections - 1; ++i) {
        silent.push_back(client());
    }
    // Whoever is heard was accepted, and so were all that came before.
    ASSERT_EQ(ask(silent.back(), request(Kind::kMount, "last")), kHandled);
    ASSERT_EQ(ask(active, request(Kind::kMount, "active")), kHandled);
    EXPECT_EQ(ask(client(), request(Kind::kMount, "new")), kHandled);
    EXPECT_EQ(answer(silent.front()), -1);
    EXPECT_EQ(ask(active, request(Kind::kMount, "still")), kHandled);
}

TEST_F(PrivilegedServer, EndsTheConnectionOfWhoeverMayNotAsk)
{
    ASSERT_EQ(chmod(kPath, 0666), 0);
    const int status = inChildAs(1234, 1234, {}, [] {
        const UniqueFd connection = client();
        const int first = ask(connection, request(Kind::kMount, "a"));
        return first == EPERM && answer(connection) == -1 ? 0 : 1;
    });
    if (status == 126) {
        GTEST_SKIP() << "there is only one user here";
    }
    EXPECT_EQ(status, 0);
    expectTexts(end(), {});
}

TEST_F(PrivilegedServer, EndsASilentConnectionAfterSomeTime)
{
    const UniqueFd connection = client();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(answer(connection), -1);
    EXPECT_GE(std::chrono::steady_clock::now() - start, kLongestSilence);
}

TEST_F(PrivilegedServer, TakesNobodyForSilentWhoWasNotListenedTo)
{
    const UniqueFd connection = client();
    ASSERT_EQ(ask(connection, request(Kind::kMount, "early")), kHandled);
    const UniqueFd other = client();
    const Request slow = request(Kind::kMount, kSlow);
    ASSERT_GT(send(other.get(), &slow, sizeof slow, MSG_NOSIGNAL), 0);
    std::this_thread::sleep_for(std::chrono::seconds(1));
    EXPECT_EQ(ask(connection, request(Kind::kMount, "meanwhile")), kHandled);
    EXPECT_EQ(answer(other), kHandled);
}

TEST_F(PrivilegedServer, HandlesNoPacketOfAnotherSize)
{
    const std::vector<char> bytes(3000, 1);
    for (const std::size_t size :
         {std::size_t{1}, std::size_t{4}, sizeof(Request) - 1, sizeof(Request) + 1, bytes.size()}) {
        EXPECT_EQ(ask(client(), bytes.data(), size), -1) << size;
    }
    Request good = request(Kind::kMount, "a");
    std::vector<char> longer(sizeof good + 1, '\0');
    std::memcpy(longer.data(), &good, sizeof good);
    EXPECT_EQ(ask(client(), longer.data(), longer.size()), -1);
    expectTexts(end(), {});
}

TEST_F(PrivilegedServer, HandlesNoOtherVersionOrKind)
{
    Request other = request(Kind::kMount, "a");
    other.version = kProtocolVersion + 1;
    EXPECT_EQ(ask(client(), other), -1);
    for (const std::uint32_t kind : {0U, 4U, 0xffffffffU}) {
        EXPECT_EQ(ask(client(), request(static_cast<Kind>(kind), "a")), -1) << kind;
    }
    expectTexts(end(), {});
}

TEST_F(PrivilegedServer, HandlesNoTextWithoutAnEndOrWithSomethingBehindIt)
{
    EXPECT_EQ(ask(client(), request(Kind::kMount, std::string(kTextSize, 'a'))), -1);
    EXPECT_EQ(ask(client(), request(Kind::kMount, std::string("a\0b", 3))), -1);
    expectTexts(end(), {});
}

TEST_F(PrivilegedServer, OutlivesClientsThatGoWithoutTheirAnswer)
{
    for (int i = 0; i < 50; ++i) {
        const UniqueFd connection = client();
        const Request packet = request(Kind::kMount, "a");
        ASSERT_GT(send(connection.get(), &packet, sizeof packet, MSG_NOSIGNAL), 0);
    }
    EXPECT_EQ(ask(client(), request(Kind::kMount, "b")), kHandled);
}
