#include "platform/linux/helper-connection.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <thread>

namespace {

using namespace std::chrono_literals;
using quillon::HelperConnection;
using quillon::HelperPatience;

constexpr char kPath[] = "/tmp/quillon-helper-connection";
constexpr char kPacket[] = "packet";

/// A helper's socket. Connections wait in its queue, as those to a process that is stopped.
class Helper
{
public:
    explicit Helper(int places = 100)
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::string(kPath).copy(address.sun_path, sizeof address.sun_path - 1);
        unlink(kPath);
        socket_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        EXPECT_EQ(bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(socket_, places), 0);
    }
    ~Helper()
    {
        close(socket_);
        unlink(kPath);
    }
    Helper(const Helper&) = delete;
    Helper& operator=(const Helper&) = delete;

    /// Answers the request of the oldest connection.
    void answer() const
    {
        const int connection = accept(socket_, nullptr, nullptr);
        char request[16] = {};
        EXPECT_GT(recv(connection, request, sizeof request, 0), 0);
        EXPECT_EQ(::send(connection, kPacket, sizeof kPacket, 0), ssize_t(sizeof kPacket));
        close(connection);
    }

private:
    int socket_ = -1;
};

/// Of a call that has waited for as long as it may, and not been answered.
void expectTimeOut(bool isDone)
{
    EXPECT_FALSE(isDone);
    EXPECT_EQ(errno, ETIMEDOUT);
}

TEST(HelperConnection, HasOneTimeForAllItsSteps)
{
    const Helper helper;
    HelperPatience patience(50ms, 50ms);
    HelperConnection connection(patience);
    ASSERT_TRUE(connection.open(kPath));
    std::this_thread::sleep_for(60ms);  // stands for steps that took so long

    expectTimeOut(connection.send(kPacket, sizeof kPacket));
}

TEST(HelperConnection, LosesPatienceWithAHelperThatDoesNotAnswer)
{
    const Helper helper;
    HelperPatience patience(50ms, 10ms);
    HelperConnection connection(patience);
    ASSERT_TRUE(connection.open(kPath));
    EXPECT_EQ(patience.left(), 50ms);

    char answer[16] = {};
    expectTimeOut(connection.receive(answer, sizeof answer) > 0);

    EXPECT_EQ(patience.left(), 10ms);
}

TEST(HelperConnection, LosesPatienceWithAHelperThatTakesNoMoreConnections)
{
    const Helper helper(0);
    HelperPatience patience(50ms, 10ms);
    HelperConnection first(patience);
    ASSERT_TRUE(first.open(kPath));

    HelperConnection second(patience);
    expectTimeOut(second.open(kPath));

    EXPECT_EQ(patience.left(), 10ms);
}

TEST(HelperConnection, IsPatientAgainOnceItIsAnswered)
{
    const Helper helper;
    HelperPatience patience(2min, 1min);
    patience.lose();
    HelperConnection connection(patience);
    ASSERT_TRUE(connection.open(kPath));
    ASSERT_TRUE(connection.send(kPacket, sizeof kPacket));
    helper.answer();

    char answer[16] = {};
    EXPECT_EQ(connection.receive(answer, sizeof answer), ssize_t(sizeof kPacket));

    EXPECT_EQ(patience.left(), 2min);
}

TEST(HelperConnection, LeavesPatienceAloneWhereNobodyListens)
{
    HelperPatience patience(1min, 1s);
    HelperConnection connection(patience);

    EXPECT_FALSE(connection.open("/tmp/quillon-nobody-listens"));

    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(patience.left(), 1min);
}

}  // namespace
