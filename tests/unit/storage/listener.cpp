#include "listener.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <utility>

namespace quillon::test {

namespace {

UniqueFd boundSocket()
{
    UniqueFd made(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, QUILLON_STORAGE_SOCKET);
    unlink(address.sun_path);
    EXPECT_EQ(bind(made.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    return made;
}

}  // namespace

Listener::Listener(Serve serve) : listener_(boundSocket())
{
    EXPECT_EQ(listen(listener_.get(), 8), 0);
    int ends[2] = {-1, -1};
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    endIn_ = UniqueFd(ends[0]);
    endOut_ = UniqueFd(ends[1]);
    thread_ = std::thread([this, work = std::move(serve)] {
        for (;;) {
            pollfd waiting[] = {{endIn_.get(), POLLIN, 0}, {listener_.get(), POLLIN, 0}};
            EXPECT_GT(poll(waiting, 2, -1), 0);
            if (waiting[0].revents != 0) {
                return;
            }
            const UniqueFd connection(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
            work(connection.get());
        }
    });
}

Listener::~Listener()
{
    endOut_ = UniqueFd();
    thread_.join();
    unlink(QUILLON_STORAGE_SOCKET);
}

void leaveStaleSocket()
{
    boundSocket();
}

}  // namespace quillon::test
