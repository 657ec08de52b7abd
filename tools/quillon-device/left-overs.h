#pragma once

namespace quillon::device {

// The first two find processes in /proc, which has to show the caller's PID namespace.

/// Kills every descendant of the caller and waits for its end. The caller has to be a child
/// subreaper, so that orphans become its children.
void killDescendants();

/// Kills the processes of a device in place whose launcher was killed, known by their environment,
/// and waits until they are gone.
/// For the holder of the lock only: nobody else can then have any that are alive.
void killForgottenProcesses();

/// Removes the queues whose names begin with "/fwupdate" and the service's semaphore.
void removeQueues();

}  // namespace quillon::device
