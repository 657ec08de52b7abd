#pragma once

#include <mqueue.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

#include "fw-update-mqdata.h"
#include "support/wait.h"

namespace quillon::test {

/// The bare control channel: what a careless or hostile client may do with the two queues.
class Channel
{
public:
    /// Opens the queues of a daemon that is ready. Throws std::system_error.
    Channel();
    ~Channel();
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    /// A record as a well-behaved client fills it.
    static MQData record(int32_t command);

    /// @return whether the queue took the bytes within the time-out.
    bool sendBytes(const void* data, std::size_t size,
                   std::chrono::milliseconds timeout = kPatience);
    bool send(const MQData& record) { return sendBytes(&record, sizeof record); }

    /// @return the next reply, or nothing after the time-out.
    std::optional<MQData> receive(std::chrono::milliseconds timeout = kPatience);

    /// Sends a command and takes the next reply.
    std::optional<MQData> ask(int32_t command);

    /// Sends command 8 with these very characters.
    std::optional<MQData> setPath(const std::string& path);

    /// Throws away the replies that wait.
    /// @return how many there were
    int drain();

    long waitingCommands() const;
    long waitingReplies() const;

private:
    mqd_t commands_;
    mqd_t replies_;
};

}  // namespace quillon::test
