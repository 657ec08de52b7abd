#include "tools/quillonctl/follow.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "src/support/paths.h"
#include "tools/quillonctl/next-commands.h"
#include "tools/quillonctl/recorded-run.h"
#include "tools/quillonctl/run-report.h"
#include "tools/shared/outside-text.h"

namespace quillon {
namespace {

namespace fs = std::filesystem;

bool isRunning(const RecordedRun& run)
{
    return !run.result && !hasServiceEnded(run);
}

/// Expected seconds.
struct Pace
{
    double total = 0;
    double done = 0;

    int percent() const { return total > 0 ? static_cast<int>(100 * done / total) : 0; }
    int left() const { return static_cast<int>(std::ceil(total - done)); }
};

/// @param look  the estimate that the service has made when it started the update
Pace paceOf(const RecordedRun& look, const RecordedRun& update)
{
    Pace pace;
    std::map<std::string, int> expected;
    for (const RecordedModule& module : look.modules) {
        if (module.finding && module.finding->result == 1 && look.directory == update.directory) {
            expected.try_emplace(module.name, module.expectedSeconds);
        }
    }
    for (const RecordedModule& module : update.modules) {
        const double most = expected.try_emplace(module.name, module.expectedSeconds).first->second;
        pace.done += module.finding ? most : std::min(most, secondsSinceBoot() - module.began);
    }
    for (const auto& [name, seconds] : expected) {
        pace.total += seconds;
    }
    return pace;
}

/// Where the records are of who has begun an update, below paths::kRunRecords.
struct Recorder
{
    std::string directory;  ///< empty: the service's
    const char* name;       ///< for people
    std::string log;        ///< which log says more
};

/// The service, and each control layer that may be running.
std::vector<Recorder> recorders()
{
    std::vector<Recorder> all = {{"", "the update service", namedServiceLog()}};
    const std::string log = "the control layer's log (" + logOf("FWUPDATE") + ")";
    const fs::path layers = paths::kLayerRecords;
    const std::string room = layers.parent_path().filename();
    std::error_code error;
    for (fs::directory_iterator entry(layers, error), end; !error && entry != end;
         entry.increment(error)) {
        all.push_back(
            {room + "/" + entry->path().filename().string() + "/", "the control layer", log});
    }
    return all;
}

/// Throws Failure when there are no records.
std::optional<RecordedRun> readUpdate(const Recorder& recorder)
{
    std::error_code error;
    if (!fs::is_directory(paths::kRunRecords, error)) {
        throw Failure{kExitSystem, std::string("the update service keeps no records, since ") +
                                       paths::kRunRecords +
                                       " does not exist; \"quillonctl progress\" asks the service"};
    }
    return readRecordedRun(recorder.directory + "update");
}

[[noreturn]] void endedDuring(const RecordedRun& update, const Recorder& recorder)
{
    const RecordedModule* module = update.present();
    throw Failure{
        kExitSystem,
        std::string(recorder.name) + " ended during the update" +
            (module != nullptr ? "; it was at the module " + printable(module->name) : "") + "; " +
            recorder.log + " says more"};
}

struct RunningUpdate
{
    Recorder recorder;
    RecordedRun update;
};

/// Prefers an update that is at a module to one that waits for its turn. Throws Failure.
std::optional<RunningUpdate> findRunning()
{
    std::optional<RunningUpdate> found;
    for (const Recorder& recorder : recorders()) {
        const std::optional<RecordedRun> update = readUpdate(recorder);
        const bool isBetter = !found || (found->update.present() == nullptr && update &&
                                         update->present() != nullptr);
        if (update && isRunning(*update) && isBetter) {
            found = RunningUpdate{recorder, *update};
        }
    }
    return found;
}

void sayWhich(Output& output, const RecordedRun& update, const Recorder& recorder)
{
    if (recorder.directory.empty()) {
        output.say("following", {{"directory", update.directory}},
                   "The update from " + printable(update.directory) + " is running");
        return;
    }
    output.say("following", {{"source", update.directory}, {"process", update.service}},
               "The control layer of process " + std::to_string(update.service) +
                   " is updating modules, source " + printable(update.directory));
}

/// What the update ended with. The service records a result of its own, control layers record what
/// they exit with.
ExitCode endOf(const RecordedRun& update, const Recorder& recorder)
{
    if (*update.result == 0) {
        return kExitSuccess;
    }
    return recorder.directory.empty() ? kExitUpdateFailed : static_cast<ExitCode>(*update.result);
}

/// Throws Failure.
ExitCode followTo(Output& output, std::chrono::milliseconds pollInterval, const Recorder& recorder,
                  std::optional<RecordedRun> update)
{
    const double began = update->began;
    sayWhich(output, *update, recorder);
    UpdateReport report(output, recorder.log);
    while (!update->result) {
        const RecordedRun look =
            readRecordedRun(recorder.directory + "estimate").value_or(RecordedRun());
        const Pace pace = paceOf(look, *update);
        report.running(*update, std::min(pace.percent(), 99), pace.left());
        std::this_thread::sleep_for(pollInterval);
        const bool isGone =
            hasServiceEnded(*update);  // before the last look at what it has written
        const std::optional<RecordedRun> latest = readUpdate(recorder);
        if (!latest) {
            throw Failure{kExitSystem,
                          "the record of the update is gone; \"quillonctl progress\" "
                          "asks the service"};
        }
        if (latest->began != began) {
            throw Failure{kExitSystem, "the update has ended, and the next one has begun"};
        }
        if (isGone && !latest->result) {
            endedDuring(*update, recorder);
        }
        update = latest;
    }
    const int seconds = static_cast<int>(std::lround(update->ended - began));
    return report.ended(*update, endOf(*update, recorder), seconds);
}

}  // namespace

ExitCode followUpdate(Output& output, std::chrono::milliseconds pollInterval,
                      const FindUpdater& updater)
{
    if (const std::optional<RunningUpdate> running = findRunning()) {
        return followTo(output, pollInterval, running->recorder, running->update);
    }
    std::string trouble;
    if (const std::string who = updater(trouble); !who.empty()) {
        throw Failure{kExitSystem,
                      "another control layer is updating, and keeps no record to follow: " + who};
    }
    JsonMembers members = {{"state", "idle"}, {"percent", 0}};
    std::string text = "No update is running";
    if (!trouble.empty()) {
        trouble = "whether a control layer is updating cannot be told by this user: " + trouble;
        members["text"] = trouble;
        text = "No recorded update is running; " + trouble;
    }
    output.say("state", members, text);
    return kExitSuccess;
}

}  // namespace quillon
