#include "unit/client/fake-service.h"
#include "support/wait.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace {

using quillon::test::eventually;

mqd_t makeQueue(const char* name, long messageSize)
{
    mq_unlink(name);
    mq_attr attributes{};
    attributes.mq_maxmsg = FW_MQ_MAX_MESSAGES;
    attributes.mq_msgsize = messageSize;
    const mqd_t queue = mq_open(name, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666, &attributes);
    if (queue == -1) {
        throw std::runtime_error(std::string("cannot make ") + name + ": " + std::strerror(errno));
    }
    fchmod(queue, 0666);
    return queue;
}

/// Short, so that the thread sees soon that it is to stop.
timespec soon()
{
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    time.tv_nsec += 20000000;
    time.tv_sec += time.tv_nsec / 1000000000;
    time.tv_nsec %= 1000000000;
    return time;
}

}  // namespace

FakeService::FakeService(long messageSize) : messageSize_(messageSize)
{
    commands_ = makeQueue(FW_MQ_SERVICE_QUEUE, messageSize);
    replies_ = makeQueue(FW_MQ_CONTROL_QUEUE, messageSize);
}

FakeService::~FakeService()
{
    end();
}

void FakeService::serve()
{
    thread_ = std::thread([this] { run(); });
}

void FakeService::end()
{
    stop_ = true;
    if (thread_.joinable()) {
        thread_.join();
    }
    if (commands_ != -1) {
        mq_close(commands_);
        mq_close(replies_);
        mq_unlink(FW_MQ_SERVICE_QUEUE);
        mq_unlink(FW_MQ_CONTROL_QUEUE);
        commands_ = replies_ = -1;
    }
}

void FakeService::run()
{
    std::vector<char> buffer(static_cast<std::size_t>(messageSize_));
    while (!stop_) {
        const timespec until = soon();
        const ssize_t size =
            mq_timedreceive(commands_, buffer.data(), buffer.size(), nullptr, &until);
        if (size != static_cast<ssize_t>(sizeof(MQData))) {
            continue;
        }
        MQData request{};
        std::memcpy(&request, buffer.data(), sizeof request);
        {
            const std::lock_guard<std::mutex> guard(mutex_);
            received_.push_back({request, std::chrono::steady_clock::now()});
        }
        handle(request);
    }
}

void FakeService::handle(const MQData& request)
{
    Handler* own = nullptr;  // not a copy: it may keep something from call to call
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        const auto found = handlers_.find(request.command);
        own = found == handlers_.end() ? nullptr : &found->second;
    }
    if (own != nullptr) {
        (*own)(request);
        return;
    }
    switch (request.command) {
        case MQ_COMMAND_START:
            started_ = justStarted_ = true;
            reply(MQ_RESULT_ACCEPTED);
            break;
        case MQ_COMMAND_PROGRESS: {
            std::deque<Answer>& script = started_ ? run_ : idle_;
            const Answer answer =
                script.empty() ? Answer{MQ_RESULT_NOT_RUNNING, 0} : script.front();
            const bool stays = justStarted_ && answer.result == MQ_RESULT_RUNNING;
            justStarted_ = false;
            if (!script.empty() && !stays) {
                script.pop_front();
            }
            endTold_ = answer.result == MQ_RESULT_DONE || answer.result == MQ_RESULT_FAILED;
            reply(answer.result, answer.value);
            break;
        }
        case MQ_COMMAND_TIME:
            reply(endTold_ ? afterRun_.result : estimate_.result,
                  endTold_ ? afterRun_.value : estimate_.value);
            endTold_ = false;
            break;
        case MQ_COMMAND_PATH:
            copyPath(request);
            reply(MQ_RESULT_ACCEPTED);
            break;
        default:
            break;
    }
}

void FakeService::copyPath(const MQData& request)
{
    // No terminator: what an earlier, longer path left stays.
    const std::lock_guard<std::mutex> guard(mutex_);
    const std::size_t size = std::min<std::size_t>(strnlen(request.path, sizeof request.path), 127);
    std::memcpy(path_, request.path, size);
}

void FakeService::reply(int result, int value)
{
    MQData record{};
    record.command = MQ_COMMAND_REPLY;
    record.kind = FW_MQ_KIND;
    record.result = result;
    record.value = value;
    replyRaw(&record, sizeof record);
}

void FakeService::replyRaw(const void* bytes, std::size_t size)
{
    const std::string copy(static_cast<const char*>(bytes), size);
    while (!stop_) {
        const timespec until = soon();
        if (mq_timedsend(replies_, copy.data(), copy.size(), 0, &until) == 0) {
            return;
        }
    }
}

void FakeService::holdStill() const
{
    while (!stop_) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

void FakeService::leaveCommand(int command)
{
    MQData record{};
    record.command = command;
    record.kind = FW_MQ_KIND;
    char bytes[sizeof record];
    std::memcpy(bytes, &record, sizeof bytes);
    const timespec until = soon();
    if (mq_timedsend(commands_, bytes, sizeof bytes, 0, &until) != 0) {
        throw std::runtime_error("cannot leave a command behind");
    }
}

std::vector<FakeService::Received> FakeService::received() const
{
    const std::lock_guard<std::mutex> guard(mutex_);
    return received_;
}

std::vector<int> FakeService::commands() const
{
    std::vector<int> codes;
    for (const Received& one : received()) {
        codes.push_back(one.record.command);
    }
    return codes;
}

bool FakeService::waitFor(int command, std::size_t count) const
{
    return eventually([&] {
        const std::vector<int> codes = commands();
        return std::count(codes.begin(), codes.end(), command) >=
               static_cast<std::ptrdiff_t>(count);
    });
}

std::string FakeService::directory() const
{
    const std::lock_guard<std::mutex> guard(mutex_);
    return std::string(path_, strnlen(path_, sizeof path_));
}

long FakeService::unreadReplies() const
{
    mq_attr attributes{};
    mq_getattr(replies_, &attributes);
    return attributes.mq_curmsgs;
}
