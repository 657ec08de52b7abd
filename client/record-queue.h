/// One of the two message queues, from the client's end.
#pragma once

#include <fw-update-mqdata.h>

#include "base/fd.h"
#include "client/deadline.h"
#include "client/service-process.h"
#include "quillon/client.h"

namespace quillon {

/// @return kLost
Error serviceEnded();

/// Owns a queue's descriptor, which on Linux is a file descriptor. Waits are resumed after signals,
/// and end with kLost within a second when the service has ended: it removes its queues, or its
/// process is gone.
class RecordQueue
{
public:
    /// @param process  must outlive this object
    explicit RecordQueue(const ServiceProcess& process) : process_(process) {}

    /// Opens an existing queue.
    /// @param flags  O_RDONLY or O_WRONLY
    /// @return kNoService when it does not exist; kSystem when it may not be opened or does not
    ///         carry records of the channel's size
    Error open(const char* name, int flags);
    void close() { queue_.reset(); }

    /// @return whose queue it is
    QueueOwner owner() const;

    /// @return whether the service has ended
    bool isAbandoned() const;

    /// @return kNoReply when the queue stayed full until the deadline, kLost, kSystem
    Error send(const MQData& record, const Deadline& deadline);

    /// Takes the oldest record. One of another size counts in `malformed` and is passed over.
    /// @return kNoReply when none came until the deadline, kLost, kSystem
    Error receive(MQData& record, const Deadline& deadline, int& malformed);

    /// Throws away what waits in the queue, without waiting.
    /// @param deadline  when to give up on a queue that somebody fills without end
    void drain(const Deadline& deadline);

    /// @return how many records wait in the queue
    long waiting() const;

private:
    const ServiceProcess& process_;
    UniqueFd queue_;
};

}  // namespace quillon
