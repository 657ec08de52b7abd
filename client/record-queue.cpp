#include "client/record-queue.h"

#include <fcntl.h>
#include <mqueue.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

namespace quillon {

namespace {

constexpr const char* kMembersOnly =
    "; only root and the members of one group may use it, see \"Who may send commands\" in "
    "quillon-service(8)";

Error systemError(const std::string& what)
{
    return {ErrorCode::kSystem, what + ": " + std::strerror(errno)};
}

}  // namespace

Error serviceEnded()
{
    return {ErrorCode::kLost,
            "the update service ended while the command was being worked on; its log may say why: "
            "start it again, unless that happens by itself, and repeat the command"};
}

Error RecordQueue::open(const char* name, int flags)
{
    queue_ = UniqueFd(mq_open(name, flags | O_CLOEXEC));
    if (!queue_ && errno == ENOENT) {
        return {ErrorCode::kNoService,
                std::string("the update service is not running (no queue ") + name + ")"};
    }
    if (!queue_) {
        const bool isRefused = errno == EACCES;
        Error error = systemError(std::string("cannot open the queue ") + name);
        error.text += isRefused ? kMembersOnly : "";
        return error;
    }
    mq_attr attributes{};
    if (mq_getattr(queue_.get(), &attributes) != 0) {
        return systemError(std::string("cannot query the queue ") + name);
    }
    if (attributes.mq_msgsize != static_cast<long>(sizeof(MQData))) {
        return {ErrorCode::kSystem, std::string("the queue ") + name + " carries records of " +
                                        std::to_string(attributes.mq_msgsize) + " bytes, not " +
                                        std::to_string(sizeof(MQData)) +
                                        ": it is not the update service's"};
    }
    return {};
}

QueueOwner RecordQueue::owner() const
{
    struct stat status = {};
    if (fstat(queue_.get(), &status) != 0) {
        return {static_cast<uid_t>(-1), static_cast<gid_t>(-1)};
    }
    return {status.st_uid, status.st_gid};
}

bool RecordQueue::isAbandoned() const
{
    struct stat status = {};
    const bool removed = fstat(queue_.get(), &status) == 0 && status.st_nlink == 0;
    return removed || process_.hasEnded();
}

Error RecordQueue::send(const MQData& record, const Deadline& deadline)
{
    char bytes[sizeof record];
    std::memcpy(bytes, &record, sizeof bytes);
    while (true) {
        // Nothing is left in the queue of a service that is gone: the next one would act on it.
        if (isAbandoned()) {
            return serviceEnded();
        }
        const timespec until = deadline.nextWait();
        if (mq_timedsend(queue_.get(), bytes, sizeof bytes, 0, &until) == 0) {
            return {};
        }
        if (errno != EINTR && errno != ETIMEDOUT) {
            return systemError("cannot send to the update service");
        }
        if (deadline.passed()) {
            return {ErrorCode::kNoReply, "the update service does not take the command"};
        }
    }
}

Error RecordQueue::receive(MQData& record, const Deadline& deadline, int& malformed)
{
    char bytes[sizeof record];
    while (true) {
        const bool abandoned = isAbandoned();  // asked first: its last reply is still good
        const timespec until = deadline.nextWait();
        const ssize_t size = mq_timedreceive(queue_.get(), bytes, sizeof bytes, nullptr, &until);
        if (size == static_cast<ssize_t>(sizeof bytes)) {
            std::memcpy(&record, bytes, sizeof record);
            return {};
        }
        if (size >= 0) {
            ++malformed;
        } else if (errno != EINTR && errno != ETIMEDOUT) {
            return systemError("cannot receive from the update service");
        } else if (abandoned) {
            return serviceEnded();
        }
        if (deadline.passed()) {
            return {ErrorCode::kNoReply, "no reply from the update service"};
        }
    }
}

void RecordQueue::drain(const Deadline& deadline)
{
    // A time long past: what waits is still handed out, and nothing is waited for.
    const timespec past{};
    char bytes[sizeof(MQData)];
    while (mq_timedreceive(queue_.get(), bytes, sizeof bytes, nullptr, &past) >= 0 ||
           errno == EINTR) {
        if (deadline.passed()) {
            return;
        }
    }
}

long RecordQueue::waiting() const
{
    mq_attr attributes{};
    return mq_getattr(queue_.get(), &attributes) == 0 ? attributes.mq_curmsgs : 0;
}

}  // namespace quillon
