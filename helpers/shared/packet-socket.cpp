#include "helpers/shared/packet-socket.h"

#include <sys/socket.h>

namespace quillon {

namespace {

int option(int socket, int name)
{
    int value = -1;
    socklen_t size = sizeof value;
    return getsockopt(socket, SOL_SOCKET, name, &value, &size) == 0 ? value : -1;
}

}  // namespace

bool isPacketSocket(int descriptor, bool listening)
{
    return option(descriptor, SO_DOMAIN) == AF_UNIX &&
           option(descriptor, SO_TYPE) == SOCK_SEQPACKET &&
           option(descriptor, SO_ACCEPTCONN) == (listening ? 1 : 0);
}

}  // namespace quillon
