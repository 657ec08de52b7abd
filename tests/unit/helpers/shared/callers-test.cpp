#include "helpers/shared/callers.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "base/fd.h"
#include "helpers/shared/failure.h"

namespace quillon {
namespace {

TEST(Callers, AreRootAndWhoIsNamed)
{
    const Peer root{1, 0, {0}};
    const Peer user{1, 1000, {100, 200}};
    Callers callers;
    EXPECT_TRUE(mayAsk(callers, root));
    EXPECT_FALSE(mayAsk(callers, user));
    callers.user = 1001;
    EXPECT_FALSE(mayAsk(callers, user));
    callers.user = 1000;
    EXPECT_TRUE(mayAsk(callers, user));
    callers = Callers();
    callers.group = 300;
    EXPECT_FALSE(mayAsk(callers, user));
    callers.group = 200;
    EXPECT_TRUE(mayAsk(callers, user));
}

TEST(Callers, AreKnownByWhatTheKernelSays)
{
    int ends[2] = {-1, -1};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    const UniqueFd near(ends[0]);
    const UniqueFd far(ends[1]);

    const Peer peer = peerOf(near.get());

    EXPECT_EQ(peer.pid, getpid());
    EXPECT_EQ(peer.user, geteuid());
    EXPECT_EQ(std::count(peer.groups.begin(), peer.groups.end(), getegid()) > 0, true);
}

TEST(Callers, OfWhatIsNoConnectionAreUnknown)
{
    EXPECT_THROW(peerOf(-1), Failure);
}

}  // namespace
}  // namespace quillon
