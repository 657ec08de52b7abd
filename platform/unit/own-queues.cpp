#include "own-queues.h"

#include <fcntl.h>
#include <mqueue.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "fw-update-mqdata.h"
#include "unit-failure.h"

namespace quillon::unit {

namespace {

constexpr mode_t kMode = 0666;

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

bool isUsable(const Queue& queue, uid_t owner)
{
    struct stat status = {};
    mq_attr attributes = {};
    return queue.get() != -1 && fstat(queue.get(), &status) == 0 && status.st_uid == owner &&
           (status.st_mode & kMode) == kMode && mq_getattr(queue.get(), &attributes) == 0 &&
           attributes.mq_msgsize == static_cast<long>(sizeof(MQData)) &&
           attributes.mq_maxmsg == FW_MQ_MAX_MESSAGES;
}

void provide(const char* name, uid_t owner, gid_t group)
{
    if (isUsable(Queue(mq_open(name, O_RDWR | O_NONBLOCK | O_CLOEXEC)), owner)) {
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
        const Queue made(mq_open(name, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kMode, &attributes));
        if (made.get() == -1 && errno == EEXIST) {
            continue;
        }
        if (made.get() == -1 || fchmod(made.get(), kMode) != 0 ||
            fchown(made.get(), owner, group) != 0) {
            failWithErrno(what);
        }
        return;
    }
}

}  // namespace

void provideQueues(uid_t owner, gid_t group)
{
    provide(FW_MQ_SERVICE_QUEUE, owner, group);
    provide(FW_MQ_CONTROL_QUEUE, owner, group);
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
