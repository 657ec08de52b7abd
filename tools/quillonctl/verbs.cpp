#include "tools/quillonctl/verbs.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <thread>

#include "tools/quillonctl/signals.h"

namespace quillon {

namespace {

namespace fs = std::filesystem;

using Clock = std::chrono::steady_clock;

constexpr const char* kLookInterrupted =
    "\nquillonctl: interrupted; the update had ended before, only the second look at the stick is "
    "cut short\n";

std::atomic<const char*> g_onInterrupt{""};
static_assert(std::atomic<const char*>::is_always_lock_free, "it is read in a signal handler");

void handleInterrupt(int /*signal*/)
{
    const char* text = g_onInterrupt;
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text, std::strlen(text));
    _exit(kExitInterrupted);
}

/// From now on SIGINT writes the text to standard error and ends the process with kExitInterrupted,
/// whatever it is waiting for.
/// @param text  lives as long as the process
void onInterruptSay(const char* text)
{
    g_onInterrupt = text;
    onSignal(SIGINT, handleInterrupt);
}

/// Throws Failure when there is an error.
void check(const Error& error)
{
    static const std::map<ErrorCode, ExitCode> kExitCodes = {
        {ErrorCode::kBadArgument, kExitUsage},       {ErrorCode::kNoService, kExitNoService},
        {ErrorCode::kNoReply, kExitNoReply},         {ErrorCode::kBusy, kExitBusy},
        {ErrorCode::kRefused, kExitAlreadyUpdating},
    };
    if (error) {
        const auto found = kExitCodes.find(error.code);
        throw Failure{found != kExitCodes.end() ? found->second : kExitSystem, error.text};
    }
}

template <typename T>
T valueOf(const Result<T>& result)
{
    check(result.error);
    return result.value;
}

/// @return the directory's absolute path without symbolic links
std::string resolved(const std::string& directory)
{
    char path[PATH_MAX];
    if (realpath(directory.c_str(), path) == nullptr) {
        throw Failure{kExitUsage,
                      "cannot use the directory " + directory + ": " + std::strerror(errno)};
    }
    std::error_code error;
    if (!fs::is_directory(path, error)) {
        throw Failure{kExitUsage, "not a directory: " + directory};
    }
    return path;
}

std::set<std::string> imagesIn(const std::string& directory)
{
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

/// A directory or an estimate of ours would disturb a running update, and the service starts none
/// before somebody has fetched the last one's result.
void Verbs::makeSureNothingRuns()
{
    const Progress progress = valueOf(client_.progress());
    if (progress.state == Progress::kRunning) {
        throw Failure{kExitAlreadyUpdating, "an update is running already, at " +
                                                std::to_string(progress.percent) + " %"};
    }
    if (progress.state != Progress::kIdle) {
        report_.earlierOutcome(progress);
        lookAgain({});  // the service still has the earlier update's directory
    }
}

Estimate Verbs::prepare(const std::string& directory, Stick& stick)
{
    stick.directory = resolved(directory);
    check(client_.connect());
    makeSureNothingRuns();
    check(client_.setDirectory(stick.directory));
    report_.checking(stick.directory);
    stick.images = imagesIn(stick.directory);
    const Estimate estimate = valueOf(client_.estimate());
    report_.estimated(estimate);
    return estimate;
}

ExitCode Verbs::follow(int expectedSeconds, std::chrono::milliseconds pollInterval)
{
    const Clock::time_point start = Clock::now();
    while (true) {
        const Progress progress = valueOf(client_.progress());
        switch (progress.state) {
            case Progress::kRunning:
                // The service's percentage is measured against the first update of its life; only
                // the estimate for this one tells how long it takes.
                report_.progressed(progress.percent,
                                   std::max(expectedSeconds - secondsSince(start), 0));
                break;
            case Progress::kDone:
                report_.finished(secondsSince(start));
                return kExitSuccess;
            case Progress::kFailed:
                report_.error(kExitUpdateFailed,
                              "the update failed; the update service's log says why");
                return kExitUpdateFailed;
            default:
                throw Failure{kExitSystem,
                              "the update service no longer knows of the update: it was restarted, "
                              "or somebody else was told the result"};
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
    const Estimate estimate = prepare(directory, stick);
    if (!estimate.updateNeeded) {
        return kExitNothingToUpdate;
    }
    onInterruptSay(
        "\nquillonctl: interrupted; if the update service has started the update, it goes on "
        "there\n");
    check(client_.start());
    onInterruptSay(
        "\nquillonctl: interrupted; the update goes on in the update service, \"quillonctl "
        "progress\" tells how far it is\n");
    report_.started();
    const ExitCode ended = follow(estimate.seconds, pollInterval);
    onInterruptSay(kLookInterrupted);
    lookAgain(stick);
    return ended;
}

ExitCode Verbs::estimate(const std::string& directory)
{
    Stick stick;
    return prepare(directory, stick).updateNeeded ? kExitSuccess : kExitNothingToUpdate;
}

ExitCode Verbs::progress()
{
    check(client_.connect());
    const Progress progress = valueOf(client_.progress());
    report_.state(progress);
    if (progress.state == Progress::kDone || progress.state == Progress::kFailed) {
        onInterruptSay(kLookInterrupted);
        lookAgain({});
    }
    return progress.state == Progress::kFailed ? kExitUpdateFailed : kExitSuccess;
}

ExitCode Verbs::stop()
{
    check(client_.connect());
    check(client_.stop());
    report_.stopped();
    return kExitSuccess;
}

}  // namespace quillon
