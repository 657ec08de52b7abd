#pragma once

#include <sys/types.h>

#include <chrono>

namespace quillon::unit {

/// Takes the life marker away, keeps anybody else from making it anew, and waits until the service
/// has ended, however long its running update takes. Unread replies that fill their queue are
/// thrown away, since the service would wait for ever for somebody to read them.
///
/// Meanwhile the watchdog is told that the service is alive. That begins when a thread ends that
/// the service had when it began to serve, a time that its record of the start tells; without the
/// record, when any thread ends. It goes on as long as an update runs, and then for `patience`. A
/// thread that a module has left running counts as an update, since the two look alike and an
/// update must not be killed.
///
/// Whatever goes wrong is said, if there is memory for that, and does not end the waiting: who
/// returns early lets the service be killed in the middle of an update.
/// @param process  the service. 0 is one that has ended by itself: nothing is done, and a marker
///                 that it has left behind still tells how it ended
/// @param patience how long nothing may change in a service without an update, see above
/// Needs root's rights. Thread: any.
void endAndWait(const char* lifeMarker, pid_t process,
                std::chrono::milliseconds patience = std::chrono::minutes(1));

}  // namespace quillon::unit
