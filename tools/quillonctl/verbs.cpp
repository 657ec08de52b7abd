#include "verbs.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>

#include "interrupt.h"

namespace quillon {

namespace {

using Clock = std::chrono::steady_clock;

ExitCode exitCodeFor(ErrorCode code)
{
    switch (code) {
        case ErrorCode::kNone:
            return kExitSuccess;
        case ErrorCode::kBadArgument:
            return kExitUsage;
        case ErrorCode::kNoService:
            return kExitNoService;
        case ErrorCode::kNoReply:
            return kExitNoReply;
        case ErrorCode::kBusy:
            return kExitBusy;
        case ErrorCode::kRefused:
            return kExitAlreadyUpdating;
        default:
            return kExitSystem;
    }
}

/// @param[out] absolute  the directory's absolute path without symbolic links
Error resolveDirectory(const std::string& directory, std::string& absolute)
{
    const std::unique_ptr<char, decltype(&std::free)> real(realpath(directory.c_str(), nullptr),
                                                           &std::free);
    if (!real) {
        return {ErrorCode::kBadArgument,
                "cannot use the directory " + directory + ": " + std::strerror(errno)};
    }
    struct stat status = {};
    if (stat(real.get(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        return {ErrorCode::kBadArgument, "not a directory: " + directory};
    }
    absolute = real.get();
    return {};
}

int secondsSince(Clock::time_point start)
{
    return static_cast<int>(
        std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start).count());
}

}  // namespace

ExitCode Verbs::fail(ExitCode code, const std::string& text)
{
    m_report.error(code, text);
    return code;
}

ExitCode Verbs::fail(const Error& error)
{
    return fail(exitCodeFor(error.code), error.text);
}

/// A directory or an estimate of ours would disturb a running update, and the service starts none
/// before somebody has fetched the last one's result.
ExitCode Verbs::makeSureNothingRuns()
{
    const Result<Progress> progress = m_client.progress();
    if (progress.error) {
        return fail(progress.error);
    }
    if (progress.value.state == Progress::kRunning) {
        return fail(kExitAlreadyUpdating, "an update is running already, at " +
                                              std::to_string(progress.value.percent) + " %");
    }
    if (progress.value.state != Progress::kIdle) {
        m_report.earlierOutcome(progress.value);
    }
    return kExitSuccess;
}

ExitCode Verbs::prepare(const std::string& directory, Estimate& estimate)
{
    std::string absolute;
    Error error = resolveDirectory(directory, absolute);
    if (!error) {
        error = m_client.connect();
    }
    if (error) {
        return fail(error);
    }
    const ExitCode running = makeSureNothingRuns();
    if (running != kExitSuccess) {
        return running;
    }
    error = m_client.setDirectory(absolute);
    if (error) {
        return fail(error);
    }
    m_report.checking(absolute);
    const Result<Estimate> result = m_client.estimate();
    if (result.error) {
        return fail(result.error);
    }
    estimate = result.value;
    m_report.estimated(estimate);
    return estimate.updateNeeded ? kExitSuccess : kExitNothingToUpdate;
}

ExitCode Verbs::follow(int expectedSeconds, std::chrono::milliseconds pollInterval)
{
    const Clock::time_point start = Clock::now();
    while (true) {
        const Result<Progress> progress = m_client.progress();
        if (progress.error) {
            return fail(progress.error);
        }
        switch (progress.value.state) {
            case Progress::kRunning:
                // The service's percentage is measured against the first update of its life; only
                // the estimate for this one tells how long it takes.
                m_report.progressed(progress.value.percent,
                                    std::max(expectedSeconds - secondsSince(start), 0));
                break;
            case Progress::kDone:
                m_report.finished(secondsSince(start));
                return kExitSuccess;
            case Progress::kFailed:
                return fail(kExitUpdateFailed,
                            "the update failed; the update service's log says why");
            default:
                return fail(kExitSystem,
                            "the update service no longer knows of the update: it was restarted, "
                            "or somebody else was told the result");
        }
        std::this_thread::sleep_for(pollInterval);
    }
}

ExitCode Verbs::update(const std::string& directory, std::chrono::milliseconds pollInterval)
{
    Estimate estimate;
    const ExitCode prepared = prepare(directory, estimate);
    if (prepared != kExitSuccess) {
        return prepared;
    }
    onInterruptSay("interrupted; if the update service has started the update, it goes on there");
    const Error error = m_client.start();
    if (error) {
        return fail(error);
    }
    onInterruptSay(
        "interrupted; the update goes on in the update service, \"quillonctl progress\" tells how "
        "far it is");
    m_report.started();
    return follow(estimate.seconds, pollInterval);
}

ExitCode Verbs::estimate(const std::string& directory)
{
    Estimate estimate;
    return prepare(directory, estimate);
}

ExitCode Verbs::progress()
{
    const Error error = m_client.connect();
    if (error) {
        return fail(error);
    }
    const Result<Progress> progress = m_client.progress();
    if (progress.error) {
        return fail(progress.error);
    }
    m_report.state(progress.value);
    return progress.value.state == Progress::kFailed ? kExitUpdateFailed : kExitSuccess;
}

ExitCode Verbs::stop()
{
    Error error = m_client.connect();
    if (!error) {
        error = m_client.stop();
    }
    if (error) {
        return fail(error);
    }
    m_report.stopped();
    return kExitSuccess;
}

}  // namespace quillon
