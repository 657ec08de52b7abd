#include "driven/records.h"

#include <fcntl.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace quillon::bench {
namespace {

constexpr time_t kLongestSeconds = 120;

mqd_t open(const std::string& name, int way)
{
    const mqd_t queue = mq_open(name.c_str(), way | O_CLOEXEC);
    if (queue == -1) {
        throw std::system_error(errno, std::generic_category(), name);
    }
    return queue;
}

}  // namespace

MQData recordOf(MQCommand command, const std::string& path)
{
    MQData record{};
    record.command = command;
    record.kind = FW_MQ_KIND;
    std::copy_n(path.begin(), std::min(path.size(), sizeof record.path - 1), record.path);
    return record;
}

RecordChannel::RecordChannel(const std::string& in, const std::string& out)
    : in_(open(in, O_WRONLY)), out_(open(out, O_RDONLY))
{
}

RecordChannel::~RecordChannel()
{
    mq_close(in_);
    mq_close(out_);
}

MQData RecordChannel::ask(const MQData& record)
{
    MQData reply{};
    timespec deadline = {};
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += kLongestSeconds;
    const bool sent =
        mq_timedsend(in_, reinterpret_cast<const char*>(&record), sizeof record, 0, &deadline) == 0;
    if (!sent || mq_timedreceive(out_, reinterpret_cast<char*>(&reply), sizeof reply, nullptr,
                                 &deadline) == -1) {
        throw std::system_error(errno, std::generic_category(), "the message queues");
    }
    return reply;
}

MQData RecordChannel::ask(MQCommand command, const std::string& path)
{
    return ask(recordOf(command, path));
}

}  // namespace quillon::bench
