#include "system/channel.h"

#include <fcntl.h>
#include <time.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace quillon::test {
namespace {

mqd_t openQueue(const char* name, int flags)
{
    const mqd_t queue = mq_open(name, flags | O_CLOEXEC);
    if (queue == -1) {
        throw std::system_error(errno, std::generic_category(), name);
    }
    return queue;
}

timespec after(std::chrono::milliseconds timeout)
{
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    time.tv_sec += timeout.count() / 1000;
    time.tv_nsec += static_cast<long>(timeout.count() % 1000 * 1000000);
    if (time.tv_nsec >= 1000000000) {
        ++time.tv_sec;
        time.tv_nsec -= 1000000000;
    }
    return time;
}

long waitingIn(mqd_t queue)
{
    mq_attr attributes{};
    return mq_getattr(queue, &attributes) == 0 ? attributes.mq_curmsgs : -1;
}

}  // namespace

Channel::Channel()
    : commands_(openQueue(FW_MQ_SERVICE_QUEUE, O_WRONLY)),
      replies_(openQueue(FW_MQ_CONTROL_QUEUE, O_RDONLY))
{
}

Channel::~Channel()
{
    mq_close(commands_);
    mq_close(replies_);
}

MQData Channel::record(int32_t command)
{
    MQData record{};
    record.command = command;
    record.kind = FW_MQ_KIND;
    return record;
}

bool Channel::sendBytes(const void* data, std::size_t size, std::chrono::milliseconds timeout)
{
    const timespec end = after(timeout);
    return mq_timedsend(commands_, static_cast<const char*>(data), size, 0, &end) == 0;
}

std::optional<MQData> Channel::receive(std::chrono::milliseconds timeout)
{
    MQData record{};
    const timespec end = after(timeout);
    const ssize_t size =
        mq_timedreceive(replies_, reinterpret_cast<char*>(&record), sizeof record, nullptr, &end);
    if (size != static_cast<ssize_t>(sizeof record)) {
        return std::nullopt;
    }
    return record;
}

std::optional<MQData> Channel::ask(int32_t command)
{
    if (!send(record(command))) {
        return std::nullopt;
    }
    return receive();
}

std::optional<MQData> Channel::setPath(const std::string& path)
{
    MQData request = record(MQ_COMMAND_PATH);
    path.copy(request.path, sizeof request.path);
    if (!send(request)) {
        return std::nullopt;
    }
    return receive();
}

int Channel::drain()
{
    int count = 0;
    while (receive(std::chrono::milliseconds(0))) {
        ++count;
    }
    return count;
}

long Channel::waitingCommands() const
{
    return waitingIn(commands_);
}

long Channel::waitingReplies() const
{
    return waitingIn(replies_);
}

}  // namespace quillon::test
