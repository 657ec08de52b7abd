#ifndef QUILLON_HELPERS_LIFECYCLE_ORDERLY_END_H
#define QUILLON_HELPERS_LIFECYCLE_ORDERLY_END_H

#include <sys/types.h>

#include <string>

namespace quillon::unit {

/// Takes the life marker away, keeps anybody else from making it anew, and waits until the service
/// has ended, however long its running update takes. Unread replies that fill their queue are
/// thrown away, since the service would wait for ever for somebody to read them.
///
/// Whatever goes wrong is said and does not end the waiting: who returns early lets the service be
/// killed in the middle of an update.
/// @param process  the service. 0 is one that has ended by itself: nothing is done, and a marker
///                 that it has left behind still tells how it ended
/// Needs root's rights. Thread: any.
void endAndWait(const std::string& lifeMarker, pid_t process);

}  // namespace quillon::unit

#endif
