#include "quillon/client.h"

#include <fcntl.h>
#include <fw-update-mqdata.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <thread>

#include "client-lock.h"
#include "deadline.h"
#include "record-queue.h"
#include "service-process.h"

namespace quillon {

namespace {

using std::chrono::milliseconds;

/// As many characters as the service takes of a directory.
constexpr std::size_t kDirectorySize = 127;

constexpr auto kSettleInterval = milliseconds(5);

MQData makeRecord(MQCommand command)
{
    MQData record{};
    record.command = command;
    record.kind = FW_MQ_KIND;
    return record;
}

bool isProgressResult(int32_t result)
{
    return result == MQ_RESULT_RUNNING || result == MQ_RESULT_DONE || result == MQ_RESULT_FAILED ||
           result == MQ_RESULT_NOT_RUNNING;
}

/// Whether a reply can be the one to `command`. Progress queries and all other commands are
/// answered with results that have nothing in common.
bool canAnswer(MQCommand command, const MQData& reply)
{
    return (command == MQ_COMMAND_PROGRESS) == isProgressResult(reply.result);
}

Progress toProgress(const MQData& reply)
{
    switch (reply.result) {
        case MQ_RESULT_RUNNING:
            return {Progress::kRunning, reply.value};
        case MQ_RESULT_DONE:
            return {Progress::kDone, reply.value};
        case MQ_RESULT_FAILED:
            return {Progress::kFailed, reply.value};
        default:
            return {Progress::kIdle, 0};
    }
}

std::string inSeconds(milliseconds time)
{
    const bool whole = time.count() % 1000 == 0;
    return whole ? std::to_string(time.count() / 1000) + " s"
                 : std::to_string(time.count()) + " ms";
}

Error badDirectory(const std::string& why)
{
    return {ErrorCode::kBadArgument, "the directory " + why};
}

/// @return why `directory` cannot be sent, or no error
Error checkDirectory(const std::string& directory)
{
    if (directory.empty()) {
        return badDirectory("is empty");
    }
    if (directory.find('\0') != std::string::npos) {
        return badDirectory("has a NUL character in it");
    }
    if (directory.front() != '/') {
        return badDirectory("is not absolute: " + directory);
    }
    const std::size_t size = directory.size() + (directory.back() == '/' ? 0 : 1);
    if (size > kDirectorySize) {
        return badDirectory("has " + std::to_string(size) + " characters with its final \"/\"; " +
                            "the update service takes " + std::to_string(kDirectorySize));
    }
    return {};
}

}  // namespace

class Client::Impl
{
public:
    explicit Impl(const ClientOptions& settings) : options(settings) {}

    Error connect();
    void disconnect();
    Result<MQData> ask(const MQData& request, milliseconds timeout);
    Error send(const MQData& request, const Deadline& deadline);
    Result<Progress> progress();

    const ClientOptions options;
    std::optional<Progress> outcome;  ///< how a run ended, learnt by a query of our own

private:
    Error regainStep();
    Error settle(const Deadline& deadline);
    Result<MQData> exchange(const MQData& request, milliseconds timeout);

    ClientLock lock;
    ServiceProcess process;
    RecordQueue service{process};
    RecordQueue control{process};
    bool inStep = false;  ///< no reply to an earlier command can still be under way
};

Error Client::Impl::connect()
{
    if (lock.isHeld()) {
        return {};
    }
    inStep = false;
    outcome.reset();
    Error error = service.open(FW_MQ_SERVICE_QUEUE, O_WRONLY);
    if (!error) {
        error = control.open(FW_MQ_CONTROL_QUEUE, O_RDONLY);
    }
    if (!error) {
        process.find(service.owner());
        error = lock.acquire(ClientLock::defaultPath(), Deadline(options.lockTimeout));
    }
    if (error) {
        disconnect();
    }
    return error;
}

void Client::Impl::disconnect()
{
    service.close();
    control.close();
    process.forget();
    lock.release();
}

/// Clears away what earlier clients left. The service waits as long as ten replies are unread, so
/// taking them may let it go on with commands that were left as well; those come first.
Error Client::Impl::settle(const Deadline& deadline)
{
    control.drain(deadline);
    while (service.waiting() > 0) {
        if (service.isAbandoned()) {
            return serviceEnded();
        }
        if (deadline.passed()) {
            return {ErrorCode::kNoReply,
                    "the update service does not take the command; it may be busy with an earlier "
                    "one"};
        }
        std::this_thread::sleep_for(kSettleInterval);
        control.drain(deadline);
    }
    return {};
}

Error Client::Impl::send(const MQData& request, const Deadline& deadline)
{
    if (!lock.isHeld()) {
        return {ErrorCode::kNotConnected, "not connected to the update service"};
    }
    process.find(service.owner());  // it may have been on its way up when this client connected
    const Error error = settle(deadline);
    return error ? error : service.send(request, deadline);
}

Result<MQData> Client::Impl::exchange(const MQData& request, milliseconds timeout)
{
    const Deadline deadline(timeout);
    Error error = send(request, deadline);
    if (error) {
        return {{}, error};
    }
    int malformed = 0;
    while (true) {
        MQData reply{};
        error = control.receive(reply, deadline, malformed);
        if (error) {
            break;
        }
        if (reply.command != MQ_COMMAND_REPLY) {
            ++malformed;
            continue;
        }
        if (canAnswer(static_cast<MQCommand>(request.command), reply)) {
            return {reply, {}};
        }
    }
    if (error.code != ErrorCode::kNoReply) {
        return {{}, error};
    }
    inStep = false;
    error.text += " within " + inSeconds(timeout);
    if (malformed > 0) {
        error = {ErrorCode::kBadReply, "the update service sent " + std::to_string(malformed) +
                                           " malformed replies and no other within " +
                                           inSeconds(timeout)};
    }
    return {{}, error};
}

Result<Progress> Client::Impl::progress()
{
    const Result<MQData> reply = exchange(makeRecord(MQ_COMMAND_PROGRESS), options.replyTimeout);
    if (reply.error) {
        return {{}, reply.error};
    }
    inStep = true;
    return {toProgress(reply.value), {}};
}

Error Client::Impl::regainStep()
{
    if (inStep) {
        return {};
    }
    const Result<Progress> now = progress();
    const bool ended = now.value.state == Progress::kDone || now.value.state == Progress::kFailed;
    if (!now.error && ended) {
        outcome = now.value;
    }
    return now.error;
}

Result<MQData> Client::Impl::ask(const MQData& request, milliseconds timeout)
{
    const Error error = regainStep();
    if (error) {
        return {{}, error};
    }
    return exchange(request, timeout);
}

Client::Client(const ClientOptions& options) : m_impl(std::make_unique<Impl>(options))
{
}
Client::~Client() = default;
Client::Client(Client&&) noexcept = default;
Client& Client::operator=(Client&&) noexcept = default;

Error Client::connect()
{
    return m_impl->connect();
}

void Client::disconnect()
{
    m_impl->disconnect();
}

Error Client::setDirectory(const std::string& directory)
{
    Error error = checkDirectory(directory);
    if (error) {
        return error;
    }
    MQData request = makeRecord(MQ_COMMAND_PATH);
    std::memset(request.path, '/', kDirectorySize);
    directory.copy(request.path, directory.size());
    const Result<MQData> reply = m_impl->ask(request, m_impl->options.replyTimeout);
    if (!reply.error && reply.value.result != MQ_RESULT_ACCEPTED) {
        return {ErrorCode::kRefused, "the update service refused the directory"};
    }
    return reply.error;
}

Result<Estimate> Client::estimate()
{
    const Result<MQData> reply =
        m_impl->ask(makeRecord(MQ_COMMAND_TIME), m_impl->options.estimateTimeout);
    if (reply.error || reply.value.result != MQ_RESULT_ACCEPTED) {
        return {{}, reply.error};
    }
    return {{true, std::max(reply.value.value, 0)}, {}};
}

Error Client::start()
{
    const Result<MQData> reply =
        m_impl->ask(makeRecord(MQ_COMMAND_START), m_impl->options.startTimeout);
    if (reply.error.code == ErrorCode::kNoReply) {
        return {ErrorCode::kNoReply,
                reply.error.text +
                    "; it drops a start silently when it has no image key or when nothing needs "
                    "an update"};
    }
    if (!reply.error && reply.value.result != MQ_RESULT_ACCEPTED) {
        return {ErrorCode::kRefused, "the update service is already updating"};
    }
    return reply.error;
}

Result<Progress> Client::progress()
{
    if (m_impl->outcome) {
        const Progress kept = *m_impl->outcome;
        m_impl->outcome.reset();
        return {kept, {}};
    }
    return m_impl->progress();
}

Error Client::stop()
{
    return m_impl->send(makeRecord(MQ_COMMAND_STOP), Deadline(m_impl->options.replyTimeout));
}

}  // namespace quillon
