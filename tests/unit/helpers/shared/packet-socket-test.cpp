#include "helpers/shared/packet-socket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "base/fd.h"

namespace quillon {
namespace {

UniqueFd socketOf(int domain, int type)
{
    return UniqueFd(socket(domain, type | SOCK_CLOEXEC, 0));
}

TEST(PacketSocket, IsAConnectionOrListens)
{
    const UniqueFd made = socketOf(AF_UNIX, SOCK_SEQPACKET);
    EXPECT_TRUE(isPacketSocket(made.get(), false));
    EXPECT_FALSE(isPacketSocket(made.get(), true));

    // Without a name the kernel gives it one of its own.
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    ASSERT_EQ(bind(made.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(sa_family_t)),
              0);
    ASSERT_EQ(listen(made.get(), 1), 0);
    EXPECT_TRUE(isPacketSocket(made.get(), true));
    EXPECT_FALSE(isPacketSocket(made.get(), false));
}

TEST(PacketSocket, IsOfNoOtherKind)
{
    EXPECT_FALSE(isPacketSocket(socketOf(AF_UNIX, SOCK_STREAM).get(), false));
    EXPECT_FALSE(isPacketSocket(socketOf(AF_UNIX, SOCK_DGRAM).get(), false));
    EXPECT_FALSE(isPacketSocket(socketOf(AF_NETLINK, SOCK_RAW).get(), false));
    EXPECT_FALSE(isPacketSocket(UniqueFd(open("/dev/null", O_RDWR | O_CLOEXEC)).get(), false));
    EXPECT_FALSE(isPacketSocket(-1, false));
}

}  // namespace
}  // namespace quillon
