#include "tools/quillonctl/history.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <iterator>
#include <limits>
#include <map>
#include <set>
#include <sstream>
#include <utility>

#include "base/regular-file.h"
#include "src/support/module-reason.h"
#include "src/support/paths.h"
#include "src/support/run-history.h"
#include "tools/quillonctl/history-plot.h"
#include "tools/shared/outside-text.h"
#include "tools/shared/text-table.h"

namespace quillon {
namespace {

constexpr std::size_t kLargestHistory = 4U << 20U;
constexpr std::size_t kGenerations = 3;  // files in a directory
constexpr const char* kDate = "%Y-%m-%d";
constexpr const char* kDateAndTime = "%Y-%m-%d %H:%M";

const std::map<PastOutcome, const char*> kOutcomes = {
    {PastOutcome::kUpdated, "updated"},          {PastOutcome::kFailed, "failed"},
    {PastOutcome::kTimedOut, "timed-out"},       {PastOutcome::kCutOff, "cut-off"},
    {PastOutcome::kNotRecorded, "not-recorded"}, {PastOutcome::kRunning, "running"}};

struct KeptRun
{
    RunLines lines;
    bool isLost = false;  ///< it went on without being recorded
    bool isOfLayer = false;
};

std::string formatted(const std::tm& time, const char* format)
{
    char text[64] = "";
    const std::size_t length = std::strftime(text, sizeof text, format, &time);
    return std::string(text, length);
}

std::optional<std::int64_t> calendarMoment(const std::string& text, const char* format)
{
    std::tm time = {};
    time.tm_isdst = -1;
    if (strptime(text.c_str(), format, &time) == nullptr) {
        return std::nullopt;
    }
    const std::int64_t moment = std::mktime(&time);
    // strptime takes much that is not spelled so, and mktime days that no month has.
    return formatted(time, format) == text ? std::optional(moment) : std::nullopt;
}

std::optional<std::int64_t> momentAgo(const std::string& text, std::int64_t now)
{
    constexpr std::size_t kMostDigits = 6;
    static const std::map<char, std::int64_t> kUnits = {{'h', 3600}, {'d', 86400}};
    const std::size_t digits = text.find_first_not_of("0123456789");
    if (digits == 0 || digits > kMostDigits || digits + 1 != text.size()) {
        return std::nullopt;
    }
    const auto unit = kUnits.find(text.back());
    return unit != kUnits.end() ? std::optional(now - std::stol(text) * unit->second)
                                : std::nullopt;
}

/// @param[in,out] room  how much may be read; what is read is taken off
/// @return empty where there is no such file
std::string readGeneration(const std::string& path, std::size_t& room)
{
    UniqueFd file;
    struct stat opened = {};
    SecretBytes bytes;
    FileResult result = openRegularFile(path.c_str(), O_NOFOLLOW, file, opened);
    const std::size_t limit = std::min(room, kLargestHistory);
    if (result == FileResult::kOk) {
        const bool isTooLarge = opened.st_size > static_cast<off_t>(limit);
        result = isTooLarge ? FileResult::kTooLarge : readToEnd(file.get(), limit, bytes);
        room -= std::min(room, bytes.size());
    }
    switch (result) {
        case FileResult::kOk:
            return std::string(bytes.begin(), bytes.end());
        case FileResult::kMissing:
            return {};
        case FileResult::kFailed:
            throw Failure{kExitSystem,
                          "cannot read " + path + ": " + std::strerror(errno) +
                              (errno == EACCES ? "; run this as root, or as a member of the group "
                                                 "of its directory"
                                               : "")};
        default:
            throw Failure{kExitSystem,
                          path + " is not the service's history: it is " +
                              (result == FileResult::kTooLarge ? "too large" : "no regular file") +
                              "; remove it, and the service begins a new one"};
    }
}

/// Skips lines that the service did not write whole, as a power cut may leave them.
void takeGeneration(const std::string& text, std::vector<KeptRun>& runs)
{
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line) && !lines.eof();) {
        try {
            const Json::Value value = objectIn(line);
            if (!value.isObject()) {
                continue;  // not left to take(): to raise an exception takes long
            }
            if (value["event"] != "began") {
                if (!runs.empty()) {
                    runs.back().lines.take(value);
                }
                continue;
            }
            RunLines begun;
            begun.take(value);
            if (!runs.empty()) {
                runs.back().isLost = value["lost"].asBool();
            }
            runs.push_back({std::move(begun)});
        } catch (const std::exception&) {
            continue;
        }
    }
}

/// Looks at the service's own record, which a reboot removes: after one, another process may have
/// the number of the service that was cut off.
/// @param recorder  empty for the service, else a control layer's directory with "/" at its end
std::optional<RecordedRun> runningUpdate(const std::string& recorder = "")
{
    std::optional<RecordedRun> run = readRecordedRun(recorder + "update");
    const bool isRunning = run && !run->result && run->service > 0 && !hasServiceEnded(*run);
    return isRunning ? run : std::nullopt;
}

bool isSame(const RecordedRun& one, const RecordedRun& other)
{
    return one.began == other.began && one.at == other.at && one.service == other.service;
}

/// What is in one of the history's directories, with "/" at its end. Throws Failure.
struct KeptRuns
{
    std::vector<KeptRun> runs;
    std::vector<KeptRun> refused;  ///< those without an end, which were not written whole, left out

    /// @param[in,out] room  see readGeneration()
    KeptRuns(const std::string& directory, std::size_t& room)
    {
        for (const char* name : {kEarlierHistory, kHistory}) {
            takeGeneration(readGeneration(directory + name, room), runs);
        }
        takeGeneration(readGeneration(directory + kRefusedRuns, room), refused);
        refused.erase(std::remove_if(refused.begin(), refused.end(),
                                     [](const KeptRun& one) { return !one.lines.run.result; }),
                      refused.end());
        struct stat status = {};
        if (!runs.empty() && lstat((directory + kLostLines).c_str(), &status) == 0) {
            runs.back().isLost = true;
        }
    }
};

/// The directories that control layers have left, the newest last, and no more than they keep.
std::set<std::pair<std::int64_t, std::string>> layerHistories()
{
    std::set<std::pair<std::int64_t, std::string>> histories;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(paths::kLayerHistory, error), end;
         !error && entry != end; entry.increment(error)) {
        const std::string name = entry->path().filename();
        histories.emplace(std::strtoll(name.c_str(), nullptr, 10), name);
        if (histories.size() > kMostLayerHistories) {
            histories.erase(histories.begin());
        }
    }
    return histories;
}

/// Adds the latest updates of control layers, as many as they keep.
/// @return how many directories cannot be read
int addLayers(std::vector<KeptRun>& all)
{
    int leftOut = 0;
    std::size_t room = kMostLayerBytes;
    const auto histories = layerHistories();
    for (auto history = histories.rbegin(); history != histories.rend(); ++history) {
        try {
            KeptRuns kept(paths::kLayerHistory + history->second + "/", room);
            for (std::vector<KeptRun>* runs : {&kept.runs, &kept.refused}) {
                for (KeptRun& run : *runs) {
                    run.isOfLayer = true;
                    all.push_back(std::move(run));
                }
            }
        } catch (const Failure&) {
            ++leftOut;
        }
    }
    return leftOut;
}

/// Sorts others in by time. The service's stay in their order, whatever the clock was set to.
std::vector<KeptRun> merged(std::vector<KeptRun> runs, std::vector<KeptRun> others)
{
    std::stable_sort(others.begin(), others.end(), [](const KeptRun& one, const KeptRun& other) {
        return std::pair(one.lines.run.at, one.lines.run.began) <
               std::pair(other.lines.run.at, other.lines.run.began);
    });
    std::vector<KeptRun> all;
    auto next = others.begin();
    for (KeptRun& run : runs) {
        for (; next != others.end() && next->lines.run.at < run.lines.run.at; ++next) {
            all.push_back(std::move(*next));
        }
        all.push_back(std::move(run));
    }
    std::move(next, others.end(), std::back_inserter(all));
    return all;
}

/// What became of modules without an end.
PastOutcome unfinishedIn(const KeptRun& kept)
{
    if (kept.isLost) {
        return PastOutcome::kNotRecorded;
    }
    const RecordedRun& run = kept.lines.run;
    if (!kept.isOfLayer || run.result || run.service <= 0) {
        return PastOutcome::kCutOff;
    }
    const auto running = runningUpdate("modules/" + std::to_string(run.service) + "/");
    return running && isSame(*running, run) ? PastOutcome::kRunning : PastOutcome::kCutOff;
}

PastOutcome outcomeOf(const RecordedModule& module, PastOutcome unfinished)
{
    if (!module.finding) {
        return unfinished;
    }
    return module.finding->result == 0 ? PastOutcome::kUpdated : PastOutcome::kFailed;
}

void addUpdates(const KeptRun& kept, PastOutcome unfinished, std::vector<PastUpdate>& updates)
{
    const RecordedRun& run = kept.lines.run;
    for (RecordedModule module : run.modules) {
        // Control layers end with what they exit with, and raise nothing.
        if (!kept.isOfLayer && !module.finding && run.result.value_or(0) != 0) {
            module.finding = ModuleFinding{-1, ModuleReason::kException, {}};
        }
        const bool isLate = kept.isOfLayer && module.isLate && !module.finding && run.result;
        const PastOutcome outcome = isLate ? PastOutcome::kTimedOut : outcomeOf(module, unfinished);
        const auto passed = static_cast<std::int64_t>(module.began - run.began);
        updates.push_back(
            {run.at + passed, run.directory, kept.isOfLayer, std::move(module), outcome});
    }
    if (!run.result && run.present() == nullptr) {
        updates.push_back({run.at, run.directory, kept.isOfLayer, {}, unfinished});
    }
}

std::string seconds(double value)
{
    return std::to_string(std::llround(value)) + " s";
}

TableRow rowOf(const PastUpdate& update)
{
    const RecordedModule& module = update.module;
    return {localTime(update.at),
            module.name.empty() ? "-" : module.name,
            module.offered.empty() ? "-" : module.offered,
            module.expectedSeconds > 0 ? seconds(module.expectedSeconds) : "-",
            module.finding ? seconds(module.seconds) : "-",
            resultOf(update)};
}

JsonMembers membersOf(const PastUpdate& update)
{
    const RecordedModule& module = update.module;
    JsonMembers members = {{"at", Json::Int64(update.at)},
                           {update.isOfLayer ? "source" : "directory", update.directory},
                           {"outcome", kOutcomes.at(update.outcome)}};
    if (!module.name.empty()) {
        members["module"] = module.name;
        members["expectedSeconds"] = module.expectedSeconds;
    }
    if (!module.offered.empty()) {
        members["offered"] = module.offered;
    }
    if (module.finding) {
        members["result"] = module.finding->result;
        members["seconds"] = module.seconds;
    }
    if (update.outcome == PastOutcome::kFailed) {
        members["reason"] = codeOf(module.finding->reason);
        members["text"] = phraseOf(*module.finding);
    }
    return members;
}

void sayUpdates(Output& output, const std::vector<PastUpdate>& updates)
{
    std::vector<TableRow> rows = {{"WHEN", "MODULE", "OFFERED", "EXPECTED", "TOOK", "RESULT"}};
    for (const PastUpdate& update : updates) {
        output.event("past-update", membersOf(update));
        rows.push_back(rowOf(update));
    }
    for (const std::string& line : aligned(std::move(rows))) {
        output.line(line);
    }
}

}  // namespace

std::optional<std::int64_t> momentOf(const std::string& text, std::int64_t now)
{
    if (const auto ago = momentAgo(text, now)) {
        return ago;
    }
    const auto moment = calendarMoment(text, kDateAndTime);
    return moment ? moment : calendarMoment(text, kDate);
}

std::string localTime(std::int64_t at)
{
    const auto moment = static_cast<std::time_t>(at);
    std::tm time = {};
    const bool isReached = moment == at && localtime_r(&moment, &time) != nullptr;
    return isReached ? formatted(time, kDateAndTime) : "-";
}

std::string resultOf(const PastUpdate& update)
{
    switch (update.outcome) {
        case PastOutcome::kUpdated:
            return "updated";
        case PastOutcome::kFailed:
            return "failed: " + printable(phraseOf(*update.module.finding));
        case PastOutcome::kTimedOut:
            return "timed out: its end was not awaited";
        case PastOutcome::kNotRecorded:
            return "not recorded";
        case PastOutcome::kRunning:
            return "running";
        default:
            return "cut off";
    }
}

std::optional<std::vector<PastUpdate>> readHistory(int& leftOut)
{
    // Comes last, and may not be in the history yet. Read first: it may end while this goes on.
    const std::optional<RecordedRun> running = runningUpdate();
    std::size_t room = kGenerations * kLargestHistory;
    KeptRuns service(paths::kRunHistory, room);
    struct stat status = {};
    if (service.runs.empty() && stat(paths::kRunHistory, &status) != 0) {
        return std::nullopt;
    }
    leftOut = addLayers(service.refused);

    std::vector<PastUpdate> updates;
    for (const KeptRun& kept : merged(std::move(service.runs), std::move(service.refused))) {
        if (!running || !isSame(*running, kept.lines.run)) {
            addUpdates(kept, unfinishedIn(kept), updates);
        }
    }
    if (running) {
        KeptRun kept;
        kept.lines.run = *running;
        addUpdates(kept, PastOutcome::kRunning, updates);
    }
    return updates;
}

ExitCode showHistory(Output& output, const HistoryRequest& request)
{
    int leftOut = 0;
    std::optional<std::vector<PastUpdate>> updates = readHistory(leftOut);
    if (leftOut != 0) {
        output.warning(std::to_string(leftOut) +
                       (leftOut == 1 ? " history of a control layer cannot be read and is left out"
                                     : " histories of control layers cannot be read and are left "
                                       "out") +
                       (geteuid() == 0 ? "" : "; run this as root"));
    }
    if (!updates) {
        output.line(std::string("No update is recorded: the service keeps its history only if the "
                                "directory ") +
                    paths::kRunHistory + " exists");
        return kExitSuccess;
    }
    const std::int64_t since = momentOf(request.since, std::time(nullptr))
                                   .value_or(std::numeric_limits<std::int64_t>::min());
    updates->erase(std::remove_if(updates->begin(), updates->end(),
                                  [&](const PastUpdate& one) { return one.at < since; }),
                   updates->end());
    if (updates->empty()) {
        output.line(request.since.empty() ? "No update is recorded"
                                          : "No update is recorded since " + localTime(since));
        return kExitSuccess;
    }
    sayUpdates(output, *updates);
    if (request.plot) {
        writePlot(*request.plot, *updates);
        output.say("plotted", {{"file", *request.plot}}, "Plotted to " + *request.plot);
    }
    return kExitSuccess;
}

}  // namespace quillon
