#include "tools/quillonctl/verbs.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <thread>
#include <utility>

#include "src/support/paths.h"
#include "tools/quillonctl/follow.h"
#include "tools/quillonctl/next-commands.h"
#include "tools/quillonctl/run-report.h"
#include "tools/shared/outside-text.h"
#include "tools/shared/signals.h"

namespace quillon {

namespace {

namespace fs = std::filesystem;

using Clock = std::chrono::steady_clock;

constexpr const char* kFollowAdvice = "; \"quillonctl progress --follow\" shows a running update";
constexpr const char* kEndInterrupted =
    "\nquillonctl: interrupted; the update had ended before, \"quillonctl history\" tells how\n";
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

/// What a client's error ends the program with, and what the user may do then.
struct ClientFailure
{
    ExitCode code;
    std::string advice;
};

/// Throws Failure when there is an error.
void exitOn(const Error& error)
{
    static const std::map<ErrorCode, ClientFailure> kFailures = {
        {ErrorCode::kBadArgument, {kExitUsage, ""}},
        {ErrorCode::kNoService,
         {kExitNoService, "; start it, or let \"quillonctl doctor\" say why it does not start"}},
        {ErrorCode::kNoReply,
         {kExitNoReply,
          "; \"quillonctl doctor\" looks for what may keep it busy; the service's log: " +
              serviceLog()}},
        {ErrorCode::kLost, {kExitSystem, "; its log: " + serviceLog()}},
        {ErrorCode::kBusy,
         {kExitBusy,
          "; try again when it has finished: \"quillonctl progress --follow\" shows a running "
          "update meanwhile"}},
        {ErrorCode::kRefused, {kExitAlreadyUpdating, kFollowAdvice}},
    };
    if (error) {
        const auto found = kFailures.find(error.code);
        const ClientFailure failure =
            found != kFailures.end() ? found->second : ClientFailure{kExitSystem, {}};
        throw Failure{failure.code, error.text + failure.advice};
    }
}

template <typename T>
T valueOf(const Result<T>& result)
{
    exitOn(result.error);
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

/// @return none for a directory with very many files
std::set<std::string> imagesIn(const std::string& directory)
{
    constexpr int kMostFiles = 10000;
    std::set<std::string> names;
    std::error_code error;
    int files = 0;
    for (fs::directory_iterator it(directory, error), end; !error && it != end;
         it.increment(error)) {
        if (++files > kMostFiles) {
            return {};
        }
        if (it->path().extension() == ".bin") {
            names.insert(it->path().filename());
        }
    }
    return names;
}

/// What a second look at the stick, after the end of an update, has told of the modules that the
/// service has marked as needing an update.
struct Look
{
    const char* marks;   ///< what became of the marks, as --json says it
    std::string advice;  ///< what it means and what is to be done; empty when no mark is left
};

/// @param stick   as it was before the update
/// @param answer  to the estimate after it
Look judge(const Stick& stick, const Result<Estimate>& answer)
{
    const bool known = !stick.directory.empty();
    if (answer.value.updateNeeded) {
        return {"still-needed",
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
        return {"unknown", "cannot look once more at the stick: " + answer.error.text +
                               "; leave it in place" + remedy};
    }
    if (stick.images.empty()) {
        return {"unknown",
                "if the update's stick had been taken out already, put it back" + remedy};
    }
    const std::set<std::string> now = imagesIn(stick.directory);
    if (!std::includes(now.begin(), now.end(), stick.images.begin(), stick.images.end())) {
        return {"stick-gone",
                "the stick was taken out before the update service had looked at it once more; put "
                "it back" +
                    remedy};
    }
    return {"renewed", {}};
}

const std::map<Progress::State, const char*> kStates = {
    {Progress::kIdle, "idle"},
    {Progress::kRunning, "running"},
    {Progress::kDone, "done"},
    {Progress::kFailed, "failed"},
};

JsonMembers membersOf(const Progress& progress)
{
    return {{"state", kStates.at(progress.state)}, {"percent", progress.percent}};
}

std::string describe(const Progress& progress)
{
    switch (progress.state) {
        case Progress::kRunning:
            return "The update is running, " + std::to_string(progress.percent) + " %";
        case Progress::kDone:
            return "The update finished";
        case Progress::kFailed:
            return "The update failed";
        default:
            return "No update is running";
    }
}

/// Why the service has looked at no image, by its record of its start; empty when that is not
/// known.
std::string whyNoneIsLookedAt()
{
    const std::optional<RecordedRun> start = readRecordedRun("start");
    if (!start || !start->result || hasServiceEnded(*start)) {
        return "";
    }
    const auto isLoaded = [](const RecordedModule& one) {
        return one.finding && one.finding->result == 0;
    };
    if (std::none_of(start->modules.begin(), start->modules.end(), isLoaded)) {
        return std::string(
                   "the service has loaded no module when it started; \"quillonctl modules "
                   "list\" shows those in ") +
               paths::kModules + ", and a restart of the service loads them";
    }
    return start->hasKey.value_or(true) ? ""
                                        : "there is no image key on the device; \"quillonctl "
                                          "doctor\" says what is missing";
}

/// @param why  nothing was looked at; empty when that is not known
std::string describeEstimate(const Estimate& estimate, bool isExplained, const std::string& why)
{
    if (estimate.updateNeeded) {
        return "The update takes about " + std::to_string(estimate.seconds) + " s";
    }
    if (!why.empty()) {
        return "Nothing to update: " + why;
    }
    return isExplained ? "Nothing to update"
                       : "Nothing to update: no image is newer, or none can be used; the "
                         "service's log (" +
                             serviceLog() + ") says why";
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
                                                std::to_string(progress.percent) + " %" +
                                                kFollowAdvice};
    }
    if (progress.state != Progress::kIdle) {
        output_.say("earlier-update", membersOf(progress),
                    progress.state == Progress::kDone ? "An earlier update had finished"
                                                      : "An earlier update had failed");
        lookAgain({});  // the service still has the earlier update's directory
    }
}

void Verbs::recordsBegin(const char* record, const std::string& stick)
{
    record_ = record;
    stick_ = stick;
    since_ = secondsSinceBoot();
}

std::optional<RecordedRun> Verbs::recorded() const
{
    return stick_.empty() ? std::nullopt : readRecordedRun(record_, stick_, since_);
}

/// What a service is at that does not reply: what was asked here, or else by somebody before.
std::optional<RecordedRun> Verbs::unfinished() const
{
    for (std::optional<RecordedRun> run :
         {recorded(), readRecordedRun("update"), readRecordedRun("estimate")}) {
        const bool isAsked = run && !stick_.empty() && run->began >= since_;
        if (run && !run->result && run->present() != nullptr &&
            (isAsked || !hasServiceEnded(*run))) {
            return run;
        }
    }
    return std::nullopt;
}

/// Adds to a failure the module that the service was at.
/// @param work  what the verb does
template <typename Work>
ExitCode Verbs::namingModule(Work work)
{
    try {
        return work();
    } catch (Failure& failure) {
        const bool isAnswered = failure.code != kExitNoReply && failure.code != kExitSystem;
        if (const auto run = isAnswered ? std::nullopt : unfinished()) {
            failure.text += "; the service was at the module " + printable(run->present()->name);
        }
        throw;
    }
}

/// Asks the modules while the service updates nothing: this client is the only one.
/// @return nothing where they cannot be asked, as while a control layer is updating
ModuleAnswers Verbs::answers()
{
    try {
        return ask_();
    } catch (const Failure& failure) {
        output_.advice("the running versions are not known: " + printable(failure.text));
        return {};
    }
}

Estimate Verbs::prepare(const std::string& directory, Stick& stick,
                        std::optional<RecordedRun>& look)
{
    stick.directory = resolved(directory);
    exitOn(client_.connect());
    makeSureNothingRuns();
    exitOn(client_.setDirectory(stick.directory));
    output_.say("checking", {{"directory", stick.directory}}, "Checking " + stick.directory);
    stick.images = imagesIn(stick.directory);
    recordsBegin("estimate", stick.directory);
    const Estimate estimate = valueOf(client_.estimate());
    look = recorded();
    if (look && !look->result) {
        look.reset();  // it has no end, so it may lack a refusal
    }
    if (look) {
        before_ = answers();
        sayLook(output_, *look, before_);
    }
    const std::string why = look || estimate.updateNeeded ? "" : whyNoneIsLookedAt();
    JsonMembers members = {{"updateNeeded", estimate.updateNeeded}, {"seconds", estimate.seconds}};
    if (!why.empty()) {
        members["text"] = why;
    }
    output_.say("estimate", members, describeEstimate(estimate, look.has_value(), why));
    return estimate;
}

ExitCode Verbs::follow(int expectedSeconds, std::chrono::milliseconds pollInterval)
{
    const Clock::time_point start = Clock::now();
    UpdateReport report(output_);
    while (true) {
        const Progress progress = valueOf(client_.progress());
        const int passed = secondsSince(start);
        const RecordedRun update = recorded().value_or(RecordedRun());
        switch (progress.state) {
            case Progress::kRunning:
                // The service's percentage is measured against the first update of its life; only
                // the estimate for this one tells how long it takes.
                report.running(update, progress.percent, std::max(expectedSeconds - passed, 0));
                break;
            case Progress::kDone:
            case Progress::kFailed: {
                onInterruptSay(kEndInterrupted);
                std::optional<AnswersAround> around;
                if (!update.modules.empty()) {
                    around = {before_, answers()};
                }
                return report.ended(
                    update, progress.state == Progress::kDone ? kExitSuccess : kExitUpdateFailed,
                    passed, around);
            }
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
    output_.say("looking-again", {}, "Looking once more at the stick");
    const Look look = judge(stick, client_.estimate());
    if (look.advice.empty()) {
        output_.event("looked-again", {{"marks", look.marks}});
        return;
    }
    output_.event("looked-again", {{"marks", look.marks}, {"text", look.advice}});
    output_.advice(look.advice);
}

ExitCode Verbs::update(const std::string& directory, std::chrono::milliseconds pollInterval)
{
    return namingModule([&] { return run(directory, pollInterval); });
}

ExitCode Verbs::run(const std::string& directory, std::chrono::milliseconds pollInterval)
{
    Stick stick;
    std::optional<RecordedRun> look;
    const Estimate estimate = prepare(directory, stick, look);
    if (!estimate.updateNeeded) {
        return nothingNeeded(look);
    }
    onInterruptSay(
        "\nquillonctl: interrupted; if the update service has started the update, it goes on "
        "there\n");
    recordsBegin("update", stick.directory);
    exitOn(client_.start());
    onInterruptSay(
        "\nquillonctl: interrupted; the update goes on in the update service, \"quillonctl "
        "progress\" tells how far it is\n");
    output_.say("started", {}, "The update has started");
    const ExitCode ended = follow(estimate.seconds, pollInterval);
    onInterruptSay(kLookInterrupted);
    lookAgain(stick);
    return ended;
}

ExitCode Verbs::check(const std::string& directory)
{
    return namingModule([&] {
        Stick stick;
        std::optional<RecordedRun> look;
        return prepare(directory, stick, look).updateNeeded ? kExitSuccess : kExitNothingToUpdate;
    });
}

ExitCode Verbs::progress()
{
    return namingModule([&] { return askProgress(); });
}

ExitCode Verbs::askProgress()
{
    exitOn(client_.connect());
    const Progress progress = valueOf(client_.progress());
    output_.say("state", membersOf(progress), describe(progress));
    if (progress.state == Progress::kDone || progress.state == Progress::kFailed) {
        onInterruptSay(kLookInterrupted);
        lookAgain({});
    }
    return progress.state == Progress::kFailed ? kExitUpdateFailed : kExitSuccess;
}

ExitCode Verbs::progressToTheEnd(std::chrono::milliseconds pollInterval, const FindUpdater& updater)
{
    onInterruptSay("\nquillonctl: interrupted; the update goes on\n");
    return followUpdate(output_, pollInterval, updater);
}

ExitCode Verbs::stop()
{
    exitOn(client_.connect());
    exitOn(client_.stop());
    output_.say("stop-sent", {}, "The update service was asked to take no more commands");
    return kExitSuccess;
}

}  // namespace quillon
