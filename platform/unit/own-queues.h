#ifndef QUILLON_PLATFORM_UNIT_OWN_QUEUES_H
#define QUILLON_PLATFORM_UNIT_OWN_QUEUES_H

#include <sys/types.h>

/// The service's two message queues. Everybody may make queues, so somebody else may have taken
/// their names, or all the places that the kernel has for queues.
namespace quillon::unit {

/// Makes sure that both queues are there, the owner's, of the right shape and open to everybody.
/// A queue that is so already stays with what is in it; any other is replaced.
/// Needs root's rights. Errors are thrown as std::system_error. Thread: any.
void provideQueues(uid_t owner, gid_t group);

/// Whether there are as many replies as fit, so that the service waits for somebody to read them.
bool isReplyQueueFull();

/// Takes all replies away. Thread: any.
void emptyReplyQueue();

}  // namespace quillon::unit

#endif
