#include "tools/quillonctl/follow.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <thread>

#include "src/support/paths.h"
#include "tools/quillonctl/outside-text.h"
#include "tools/quillonctl/recorded-run.h"
#include "tools/quillonctl/run-report.h"

namespace quillon {
namespace {

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

/// Throws Failure when there are no records.
std::optional<RecordedRun> readUpdate()
{
    std::error_code error;
    if (!std::filesystem::is_directory(paths::kRunRecords, error)) {
        throw Failure{kExitSystem, std::string("the update service keeps no records, since ") +
                                       paths::kRunRecords +
                                       " does not exist; \"quillonctl progress\" asks the service"};
    }
    return readRecordedRun("update");
}

[[noreturn]] void serviceEndedDuring(const RecordedRun& update)
{
    const RecordedModule* module = update.present();
    throw Failure{
        kExitSystem,
        "the update service ended during the update" +
            (module != nullptr ? "; it was at the module " + printable(module->name) : "") +
            "; the update service's log says more"};
}

}  // namespace

ExitCode followUpdate(Output& output, std::chrono::milliseconds pollInterval)
{
    std::optional<RecordedRun> update = readUpdate();
    if (!update || !isRunning(*update)) {
        output.say("state", {{"state", "idle"}, {"percent", 0}}, "No update is running");
        return kExitSuccess;
    }
    const double began = update->began;
    output.say("following", {{"directory", update->directory}},
               "The update from " + printable(update->directory) + " is running");
    const RecordedRun look = readRecordedRun("estimate").value_or(RecordedRun());
    UpdateReport report(output);
    while (!update->result) {
        const Pace pace = paceOf(look, *update);
        report.running(*update, std::min(pace.percent(), 99), pace.left());
        std::this_thread::sleep_for(pollInterval);
        const bool isGone =
            hasServiceEnded(*update);  // before the last look at what it has written
        const std::optional<RecordedRun> latest = readUpdate();
        if (!latest) {
            throw Failure{kExitSystem,
                          "the record of the update is gone; \"quillonctl progress\" "
                          "asks the service"};
        }
        if (latest->began != began) {
            throw Failure{kExitSystem, "the update has ended, and the next one has begun"};
        }
        if (isGone && !latest->result) {
            serviceEndedDuring(*update);
        }
        update = latest;
    }
    const int seconds = static_cast<int>(std::lround(update->ended - began));
    return report.ended(*update, *update->result == 0, seconds);
}

}  // namespace quillon
