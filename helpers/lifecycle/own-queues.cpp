#include "helpers/lifecycle/own-queues.h"

#include <fcntl.h>
#include <mqueue.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <string>
#include <vector>

#include "fw-update-mqdata.h"
#include "helpers/lifecycle/unit-failure.h"

namespace quillon::unit {

namespace {

constexpr mode_t kEverybodys = 0666;
constexpr mode_t kGroups = 0660;

class Queue
{
public:
    explicit Queue(mqd_t queue) : queue_(queue) {}
    ~Queue()
    {
        if (queue_ != -1) {
            static_cast<void>(mq_close(queue_));
        }
    }
    Queue(const Queue&) = delete;
    Queue& operator=(const Queue&) = delete;

    mqd_t get() const { return queue_; }

private:
    mqd_t queue_;
};

bool has(const Queue& queue, const QueueAccess& access)
{
    struct stat status = {};
    return queue.get() != -1 && fstat(queue.get(), &status) == 0 && status.st_uid == access.owner &&
           status.st_gid == access.group && (status.st_mode & ACCESSPERMS) == access.mode;
}

bool hasOurShape(const Queue& queue)
{
    mq_attr attributes = {};
    return mq_getattr(queue.get(), &attributes) == 0 &&
           attributes.mq_msgsize == static_cast<long>(sizeof(MQData)) &&
           attributes.mq_maxmsg == FW_MQ_MAX_MESSAGES;
}

void provide(const char* name, const QueueAccess& access)
{
    const Queue present(mq_open(name, O_RDWR | O_NONBLOCK | O_CLOEXEC));
    if (has(present, access) && hasOurShape(present)) {
        return;
    }
    mq_attr attributes = {};
    attributes.mq_maxmsg = FW_MQ_MAX_MESSAGES;
    attributes.mq_msgsize = sizeof(MQData);
    const std::string what = std::string("cannot make the queue ") + name;
    for (;;) {
        if (mq_unlink(name) != 0 && errno != ENOENT) {
            failWithErrno(what);
        }
        // Nobody gets at it before it is whose it shall be.
        const Queue made(mq_open(name, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600, &attributes));
        if (made.get() == -1 && errno == EEXIST) {
            continue;
        }
        if (made.get() == -1 || fchown(made.get(), access.owner, access.group) != 0 ||
            fchmod(made.get(), access.mode) != 0) {
            failWithErrno(what);
        }
        return;
    }
}

struct Command
{
    MQData record = {};
    std::size_t size = 0;
    unsigned int priority = 0;
};

/// A stop that the last service has not read would end the control task of the next one, which
/// would go on without it: ready, and deaf. Clients may send meanwhile, also ones that have waited
/// for room. So no more is taken out than fits in again.
void takeStopsOut()
{
    constexpr int kMostStops = 10 * FW_MQ_MAX_MESSAGES;  // everybody may go on sending them
    const Queue queue(mq_open(FW_MQ_SERVICE_QUEUE, O_RDWR | O_NONBLOCK | O_CLOEXEC));
    std::vector<Command> kept;
    int stops = 0;
    while (kept.size() < FW_MQ_MAX_MESSAGES && stops < kMostStops) {
        Command command;
        const ssize_t size = mq_receive(queue.get(), reinterpret_cast<char*>(&command.record),
                                        sizeof command.record, &command.priority);
        if (size < 0) {
            break;
        }
        command.size = static_cast<std::size_t>(size);
        if (command.record.command == MQ_COMMAND_STOP) {
            ++stops;
        } else {
            kept.push_back(command);
        }
    }
    std::size_t lost = 0;
    for (const Command& command : kept) {
        lost += mq_send(queue.get(), reinterpret_cast<const char*>(&command.record), command.size,
                        command.priority) != 0
                    ? 1
                    : 0;
    }
    if (stops > 0) {
        say(Priority::kInfo, "threw away a stop command that the last service has not read");
    }
    if (lost > 0) {
        say(Priority::kWarning, "threw away " + std::to_string(lost) +
                                    " commands: clients have filled their queue meanwhile");
    }
}

}  // namespace

QueueAccess openQueues(uid_t service, gid_t serviceGroup)
{
    return {service, serviceGroup, kEverybodys};
}

QueueAccess groupQueues(gid_t group)
{
    return {0, group, kGroups};
}

void provideQueues(const QueueAccess& access)
{
    provide(FW_MQ_SERVICE_QUEUE, access);
    provide(FW_MQ_CONTROL_QUEUE, access);
    takeStopsOut();
}

void removeGroupQueues()
{
    for (const char* name : {FW_MQ_SERVICE_QUEUE, FW_MQ_CONTROL_QUEUE}) {
        const Queue queue(mq_open(name, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        struct stat status = {};
        if (queue.get() != -1 && fstat(queue.get(), &status) == 0 &&
            has(queue, groupQueues(status.st_gid))) {
            static_cast<void>(mq_unlink(name));
        }
    }
}

bool isReplyQueueFull()
{
    const Queue replies(mq_open(FW_MQ_CONTROL_QUEUE, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    mq_attr attributes = {};
    return replies.get() != -1 && mq_getattr(replies.get(), &attributes) == 0 &&
           attributes.mq_curmsgs >= attributes.mq_maxmsg;
}

void emptyReplyQueue()
{
    const Queue replies(mq_open(FW_MQ_CONTROL_QUEUE, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    MQData record = {};
    // At most what fits, since everybody may go on filling it.
    for (int i = 0; i < FW_MQ_MAX_MESSAGES; ++i) {
        if (mq_receive(replies.get(), reinterpret_cast<char*>(&record), sizeof record, nullptr) <
            0) {
            return;
        }
    }
}

}  // namespace quillon::unit
