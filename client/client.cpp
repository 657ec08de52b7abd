#include "quillon/client.h"

#include <fcntl.h>
#include <fw-update-mqdata.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <thread>

#include "client/client-lock.h"
#include "client/deadline.h"
#include "client/record-queue.h"
#include "client/service-process.h"

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
    const int percent = std::clamp(reply.value, 0, 99);
    switch (reply.result) {
        case MQ_RESULT_RUNNING:
            return {Progress::kRunning, percent};
        case MQ_RESULT_DONE:
            return {Progress::kDone, 100};
        case MQ_RESULT_FAILED:
            return {Progress::kFailed, percent};
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
    Error start();

    const ClientOptions options;
    std::optional<Progress> outcome;  ///< how a run ended, learnt by a query of our own

private:
    Error regainStep();
    Error askBehindStart(const Deadline& deadline, MQData& reply);
    Error startAnswered(bool accepted, int queries);
    void keepOutcome(const Progress& now);
    Error settle(const Deadline& deadline);
    template <typename Wanted>
    Result<MQData> awaitReply(milliseconds timeout, const Deadline& deadline, Wanted wanted);
    Result<MQData> exchange(const MQData& request, milliseconds timeout);

    ClientLock lock_;
    ServiceProcess process_;
    RecordQueue service_{process_};
    RecordQueue control_{process_};
    bool inStep_ = false;  ///< no reply to an earlier command can still be under way
};

Error Client::Impl::connect()
{
    if (lock_.isHeld()) {
        return {};
    }
    inStep_ = false;
    outcome.reset();
    Error error = service_.open(FW_MQ_SERVICE_QUEUE, O_WRONLY);
    if (!error) {
        error = control_.open(FW_MQ_CONTROL_QUEUE, O_RDONLY);
    }
    if (!error) {
        process_.find(service_.owner());
        error = lock_.acquire(ClientLock::defaultPath(), Deadline(options.lockTimeout));
    }
    if (error) {
        disconnect();
    }
    return error;
}

void Client::Impl::disconnect()
{
    service_.close();
    control_.close();
    process_.forget();
    lock_.release();
}

/// Clears away what earlier clients left. The service waits as long as ten replies are unread, so
/// taking them may let it go on with commands that were left as well; those come first.
Error Client::Impl::settle(const Deadline& deadline)
{
    control_.drain(deadline);
    while (service_.waiting() > 0) {
        if (service_.isAbandoned()) {
            return serviceEnded();
        }
        if (deadline.passed()) {
            return {ErrorCode::kNoReply,
                    "the update service does not take the command; it may be busy with an earlier "
                    "one"};
        }
        std::this_thread::sleep_for(kSettleInterval);
        control_.drain(deadline);
    }
    control_.drain(deadline);  // now no more than one reply can be on its way
    return {};
}

Error Client::Impl::send(const MQData& request, const Deadline& deadline)
{
    if (!lock_.isHeld()) {
        return {ErrorCode::kNotConnected, "not connected to the update service"};
    }
    process_.find(service_.owner());  // it may have been on its way up when this client connected
    const Error error = settle(deadline);
    return error ? error : service_.send(request, deadline);
}

/// @param wanted  tells whether a reply is the one that is waited for; others are passed over
template <typename Wanted>
Result<MQData> Client::Impl::awaitReply(milliseconds timeout, const Deadline& deadline,
                                        Wanted wanted)
{
    int malformed = 0;
    Error error;
    do {
        MQData reply{};
        error = control_.receive(reply, deadline, malformed);
        if (error) {
            break;
        }
        if (reply.command != MQ_COMMAND_REPLY) {
            ++malformed;
        } else if (wanted(reply)) {
            return {reply, {}};
        }
    } while (!deadline.passed());
    if (error && error.code != ErrorCode::kNoReply) {
        return {{}, error};
    }
    inStep_ = false;
    if (malformed > 0) {
        return {{},
                {ErrorCode::kBadReply, "the update service sent " + std::to_string(malformed) +
                                           " malformed replies and no other within " +
                                           inSeconds(timeout)}};
    }
    return {{},
            {ErrorCode::kNoReply, "no reply from the update service within " + inSeconds(timeout)}};
}

Result<MQData> Client::Impl::exchange(const MQData& request, milliseconds timeout)
{
    const Deadline deadline(timeout);
    const Error error = send(request, deadline);
    if (error) {
        return {{}, error};
    }
    return awaitReply(timeout, deadline, [&](const MQData& reply) {
        return canAnswer(static_cast<MQCommand>(request.command), reply);
    });
}

Result<Progress> Client::Impl::progress()
{
    const Result<MQData> reply = exchange(makeRecord(MQ_COMMAND_PROGRESS), options.replyTimeout);
    if (reply.error) {
        return {{}, reply.error};
    }
    inStep_ = true;
    return {toProgress(reply.value), {}};
}

/// Takes note of what a query of this client's own has learnt, if that is told only once.
void Client::Impl::keepOutcome(const Progress& now)
{
    if (now.state == Progress::kDone || now.state == Progress::kFailed) {
        outcome = now;
    }
}

Error Client::Impl::regainStep()
{
    if (inStep_) {
        return {};
    }
    const Result<Progress> now = progress();
    if (!now.error) {
        keepOutcome(now.value);
    }
    return now.error;
}

/// Commands are taken one after another. A progress query right behind the start is answered even
/// if the start is not, and its reply cannot be mistaken for the start's. One progress reply may
/// still be on its way from before; two of them without the start's say that the start was dropped.
Error Client::Impl::start()
{
    Error error = regainStep();
    const Deadline deadline(options.startTimeout);
    if (!error) {
        error = send(makeRecord(MQ_COMMAND_START), deadline);
    }
    if (error) {
        return error;
    }
    inStep_ = false;
    MQData reply{};
    for (int queries = 1; queries <= 2; ++queries) {
        error = askBehindStart(deadline, reply);
        if (error) {
            return error;
        }
        if (!isProgressResult(reply.result)) {
            return startAnswered(reply.result == MQ_RESULT_ACCEPTED, queries);
        }
        keepOutcome(toProgress(reply));
    }
    inStep_ = true;
    if (reply.result == MQ_RESULT_NOT_RUNNING) {
        return {ErrorCode::kNoReply,
                "the update service has started nothing: it has no image key, or its own look at "
                "the stick found nothing to update, as when the stick was taken out or cannot be "
                "read; its log says which: put the stick back and start again"};
    }
    return {ErrorCode::kBadReply,
            "the reply to the start is missing, as when somebody else reads the replies; ask for "
            "the progress to learn whether an update runs"};
}

/// @param[out] reply  the next reply, to whatever command
Error Client::Impl::askBehindStart(const Deadline& deadline, MQData& reply)
{
    Error error = service_.send(makeRecord(MQ_COMMAND_PROGRESS), deadline);
    if (!error) {
        const Result<MQData> next =
            awaitReply(options.startTimeout, deadline, [](const MQData&) { return true; });
        reply = next.value;
        error = next.error;
    }
    if (error.code == ErrorCode::kNoReply) {
        error.text +=
            "; it may still start the update after an estimate of its own, ask for the progress to "
            "learn that";
    }
    return error;
}

/// Takes the replies to the queries behind the start, too.
Error Client::Impl::startAnswered(bool accepted, int queries)
{
    if (accepted) {
        outcome.reset();  // an earlier run's, which would be taken for the one of this run
    }
    const Deadline deadline(options.replyTimeout);
    Error error;
    for (; queries > 0 && !error; --queries) {
        const Result<MQData> now =
            awaitReply(options.replyTimeout, deadline,
                       [](const MQData& reply) { return isProgressResult(reply.result); });
        error = now.error;
        if (!error) {
            keepOutcome(toProgress(now.value));
        }
    }
    inStep_ = !error;
    return accepted ? Error{}
                    : Error{ErrorCode::kRefused, "the update service is already updating"};
}

Result<MQData> Client::Impl::ask(const MQData& request, milliseconds timeout)
{
    const Error error = regainStep();
    if (error) {
        return {{}, error};
    }
    return exchange(request, timeout);
}

Client::Client(const ClientOptions& options) : impl_(std::make_unique<Impl>(options))
{
}
Client::~Client() = default;
Client::Client(Client&&) noexcept = default;
Client& Client::operator=(Client&&) noexcept = default;

Error Client::connect()
{
    return impl_->connect();
}

void Client::disconnect()
{
    impl_->disconnect();
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
    const Result<MQData> reply = impl_->ask(request, impl_->options.replyTimeout);
    if (!reply.error && reply.value.result != MQ_RESULT_ACCEPTED) {
        return {ErrorCode::kRefused, "the update service refused the directory"};
    }
    return reply.error;
}

Result<Estimate> Client::estimate()
{
    const Result<MQData> reply =
        impl_->ask(makeRecord(MQ_COMMAND_TIME), impl_->options.estimateTimeout);
    if (reply.error || reply.value.result != MQ_RESULT_ACCEPTED) {
        return {{}, reply.error};
    }
    return {{true, std::max(reply.value.value, 0)}, {}};
}

Error Client::start()
{
    return impl_->start();
}

Result<Progress> Client::progress()
{
    if (impl_->outcome) {
        const Progress kept = *impl_->outcome;
        impl_->outcome.reset();
        return {kept, {}};
    }
    return impl_->progress();
}

Error Client::stop()
{
    return impl_->send(makeRecord(MQ_COMMAND_STOP), Deadline(impl_->options.replyTimeout));
}

}  // namespace quillon
