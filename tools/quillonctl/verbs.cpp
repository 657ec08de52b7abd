#include "tools/quillonctl/verbs.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <thread>

#include "tools/quillonctl/interrupt.h"

namespace quillon {

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kLookInterrupted =
    "interrupted; the update had ended before, only the second look at the stick is cut short";

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

std::set<std::string> imagesIn(const std::string& directory)
{
    namespace fs = std::filesystem;
    std::set<std::string> names;
    std::error_code error;
    for (fs::directory_iterator it(directory, error), end; !error && it != end;
         it.increment(error)) {
        if (it->path().extension() == ".bin") {
            names.insert(it->path().filename());
        }
    }
    return names;
}

struct Look
{
    Marks marks;
    std::string advice;
};

/// @param stick   as it was before the update
/// @param answer  to the estimate after it
Look judge(const Stick& stick, const Result<Estimate>& answer)
{
    const bool known = !stick.directory.empty();
    if (answer.value.updateNeeded) {
        return {Marks::kStillNeeded,
                "a module still needs an update from the stick; " +
                    (known ? "run \"quillonctl update " + stick.directory + "\" with it"
                           : std::string("update from it next")) +
                    ", or restart the update service: until then updates from sticks without an "
                    "image for that module fail"};
    }
    const std::string remedy =
        " and run \"quillonctl estimate " + (known ? stick.directory : "DIR") +
        "\", or restart the update service: until then updates from other sticks may fail";
    if (answer.error) {
        return {Marks::kUnknown, "cannot look once more at the stick: " + answer.error.text +
                                     "; leave it in place" + remedy};
    }
    if (stick.images.empty()) {
        return {Marks::kUnknown,
                "if the update's stick had been taken out already, put it back" + remedy};
    }
    const std::set<std::string> now = imagesIn(stick.directory);
    if (!std::includes(now.begin(), now.end(), stick.images.begin(), stick.images.end())) {
        return {Marks::kStickGone,
                "the stick was taken out before the update service had looked at it once more; put "
                "it back" +
                    remedy};
    }
    return {Marks::kRenewed, {}};
}

int secondsSince(Clock::time_point start)
{
    return static_cast<int>(
        std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start).count());
}

}  // namespace

ExitCode Verbs::fail(ExitCode code, const std::string& text)
{
    report_.error(code, text);
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
    const Result<Progress> progress = client_.progress();
    if (progress.error) {
        return fail(progress.error);
    }
    if (progress.value.state == Progress::kRunning) {
        return fail(kExitAlreadyUpdating, "an update is running already, at " +
                                              std::to_string(progress.value.percent) + " %");
    }
    if (progress.value.state != Progress::kIdle) {
        report_.earlierOutcome(progress.value);
        lookAgain({});  // the service still has the earlier update's directory
    }
    return kExitSuccess;
}

ExitCode Verbs::prepare(const std::string& directory, Stick& stick, Estimate& estimate)
{
    Error error = resolveDirectory(directory, stick.directory);
    if (!error) {
        error = client_.connect();
    }
    if (error) {
        return fail(error);
    }
    const ExitCode running = makeSureNothingRuns();
    if (running != kExitSuccess) {
        return running;
    }
    error = client_.setDirectory(stick.directory);
    if (error) {
        return fail(error);
    }
    report_.checking(stick.directory);
    stick.images = imagesIn(stick.directory);
    const Result<Estimate> result = client_.estimate();
    if (result.error) {
        return fail(result.error);
    }
    estimate = result.value;
    report_.estimated(estimate);
    return estimate.updateNeeded ? kExitSuccess : kExitNothingToUpdate;
}

ExitCode Verbs::follow(int expectedSeconds, std::chrono::milliseconds pollInterval)
{
    const Clock::time_point start = Clock::now();
    while (true) {
        const Result<Progress> progress = client_.progress();
        if (progress.error) {
            return fail(progress.error);
        }
        switch (progress.value.state) {
            case Progress::kRunning:
                // The service's percentage is measured against the first update of its life; only
                // the estimate for this one tells how long it takes.
                report_.progressed(progress.value.percent,
                                   std::max(expectedSeconds - secondsSince(start), 0));
                break;
            case Progress::kDone:
                report_.finished(secondsSince(start));
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

/// The service keeps a module marked that an estimate has found in need of an update, even when it
/// has been updated, until another estimate reads the module's image. A module that is still marked
/// when the next stick comes makes its update fail, unless there is an image for it, too.
void Verbs::lookAgain(const Stick& stick)
{
    report_.lookingAgain();
    const Look look = judge(stick, client_.estimate());
    report_.lookedAgain(look.marks, look.advice);
}

ExitCode Verbs::update(const std::string& directory, std::chrono::milliseconds pollInterval)
{
    Stick stick;
    Estimate estimate;
    const ExitCode prepared = prepare(directory, stick, estimate);
    if (prepared != kExitSuccess) {
        return prepared;
    }
    onInterruptSay("interrupted; if the update service has started the update, it goes on there");
    const Error error = client_.start();
    if (error) {
        return fail(error);
    }
    onInterruptSay(
        "interrupted; the update goes on in the update service, \"quillonctl progress\" tells how "
        "far it is");
    report_.started();
    const ExitCode ended = follow(estimate.seconds, pollInterval);
    if (ended == kExitSuccess || ended == kExitUpdateFailed) {
        onInterruptSay(kLookInterrupted);
        lookAgain(stick);
    }
    return ended;
}

ExitCode Verbs::estimate(const std::string& directory)
{
    Stick stick;
    Estimate estimate;
    return prepare(directory, stick, estimate);
}

ExitCode Verbs::progress()
{
    const Error error = client_.connect();
    if (error) {
        return fail(error);
    }
    const Result<Progress> progress = client_.progress();
    if (progress.error) {
        return fail(progress.error);
    }
    report_.state(progress.value);
    if (progress.value.state == Progress::kDone || progress.value.state == Progress::kFailed) {
        onInterruptSay(kLookInterrupted);
        lookAgain({});
    }
    return progress.value.state == Progress::kFailed ? kExitUpdateFailed : kExitSuccess;
}

ExitCode Verbs::stop()
{
    Error error = client_.connect();
    if (!error) {
        error = client_.stop();
    }
    if (error) {
        return fail(error);
    }
    report_.stopped();
    return kExitSuccess;
}

}  // namespace quillon
