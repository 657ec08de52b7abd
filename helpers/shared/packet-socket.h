#ifndef QUILLON_HELPERS_SHARED_PACKET_SOCKET_H
#define QUILLON_HELPERS_SHARED_PACKET_SOCKET_H

namespace quillon {

/// @return whether the descriptor, which somebody else has handed over, is a SOCK_SEQPACKET socket
///         of this machine, and listening or not as asked.
bool isPacketSocket(int descriptor, bool listening);

}  // namespace quillon

#endif
