#include "helpers/lifecycle/own-queues.h"

#include <fcntl.h>
#include <mqueue.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <string>
#include <vector>

#include "base/fd.h"
#include "fw-update-mqdata.h"
#include "helpers/lifecycle/unit-failure.h"

namespace quillon::unit {

namespace {

constexpr mode_t kEverybodys = 0666;
constexpr mode_t kGroups = 0660;

// Linux keeps queues as descriptors, and the C library closes them as such.
UniqueFd openQueue(const char* name, int mode)
{
    return UniqueFd(mq_open(name, mode | O_NONBLOCK | O_CLOEXEC));
}

bool has(const UniqueFd& queue, const QueueAccess& access)
{
    struct stat status = {};
    return queue && fstat(queue.get(), &status) == 0 && status.st_uid == access.owner &&
           status.st_gid == access.group && (status.st_mode & ACCESSPERMS) == access.mode;
}

bool hasOurShape(const UniqueFd& queue)
{
    mq_attr attributes = {};
    return mq_getattr(queue.get(), &attributes) == 0 &&
           attributes.mq_msgsize == static_cast<long>(sizeof(MQData)) &&
           attributes.mq_maxmsg == FW_MQ_MAX_MESSAGES;
}

void provide(const char* name, const QueueAccess& access)
{
    const UniqueFd present = openQueue(name, O_RDWR);
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
        const UniqueFd made(
            mq_open(name, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600, &attributes));
        if (!made && errno == EEXIST) {
            continue;
        }
        if (!made || fchown(made.get(), access.owner, access.group) != 0 ||
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
    const UniqueFd queue = openQueue(FW_MQ_SERVICE_QUEUE, O_RDWR);
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
        if (mq_send(queue.get(), reinterpret_cast<const char*>(&command.record), command.size,
                    command.priority) != 0) {
            ++lost;
        }
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
        const UniqueFd queue = openQueue(name, O_RDONLY);
        struct stat status = {};
        if (queue && fstat(queue.get(), &status) == 0 && has(queue, groupQueues(status.st_gid))) {
            static_cast<void>(mq_unlink(name));
        }
    }
}

bool isReplyQueueFull()
{
    const UniqueFd replies = openQueue(FW_MQ_CONTROL_QUEUE, O_RDONLY);
    mq_attr attributes = {};
    return replies && mq_getattr(replies.get(), &attributes) == 0 &&
           attributes.mq_curmsgs >= attributes.mq_maxmsg;
}

void emptyReplyQueue()
{
    const UniqueFd replies = openQueue(FW_MQ_CONTROL_QUEUE, O_RDONLY);
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
