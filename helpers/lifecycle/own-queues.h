#pragma once

#include <sys/types.h>

/// The service's two message queues. Everybody may make queues, so somebody else may have taken
/// their names, or all the places that the kernel has for queues.
namespace quillon::unit {

/// Whose the queues are, and who may use them.
struct QueueAccess
{
    uid_t owner = 0;
    gid_t group = 0;
    mode_t mode = 0;
};

/// Everybody may use them; they are the service's own.
QueueAccess openQueues(uid_t service, gid_t serviceGroup);

/// Only members of the group may. They are root's: the service would open its own to everybody.
QueueAccess groupQueues(gid_t group);

/// Makes sure that both queues are there, of the right shape and with just this access.
/// A queue that is so already stays with what is in it; any other is replaced. Only stop commands
/// are taken out, so no service may be running. The other commands keep their order and priority.
/// Needs root's rights. Errors are thrown as std::system_error. Thread: any.
void provideQueues(const QueueAccess& access);

/// Takes away what groupQueues() has made, which the service cannot do itself when it ends. Thread:
/// any.
void removeGroupQueues();

/// Whether there are as many replies as fit, so that the service waits for somebody to read them.
bool isReplyQueueFull();

/// Takes all replies away. Thread: any.
void emptyReplyQueue();

}  // namespace quillon::unit
