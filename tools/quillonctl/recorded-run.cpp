#include "tools/quillonctl/recorded-run.h"

#include <fcntl.h>
#include <json/json.h>

#include <algorithm>
#include <cmath>
#include <exception>
#include <sstream>
#include <unordered_map>

#include "base/regular-file.h"
#include "src/support/module-reason.h"
#include "src/support/paths.h"

namespace quillon {
namespace {

constexpr std::size_t kLargestRecord = 16U << 20U;

/// Where each module is in RecordedRun::modules.
using Places = std::unordered_map<std::string, std::size_t>;

/// The module's entry, a new one at need.
RecordedModule& moduleOf(RecordedRun& run, Places& places, const std::string& name)
{
    const auto [place, isNew] = places.try_emplace(name, run.modules.size());
    if (isNew) {
        run.modules.push_back({name, {}, {}, 0, 0, 0});
    }
    return run.modules[place->second];
}

void take(const Json::Value& line, RecordedRun& run, Places& places)
{
    const std::string event = line["event"].asString();
    const double clock = line["clock"].asDouble();
    if (event == "began") {
        run.began = clock;
        run.service = line["pid"].asInt();
        run.directory = line["directory"].asString();
    } else if (event == "ended") {
        run.result = line["result"].asInt();
        run.ended = clock;
    } else if (event == "checking" || event == "started") {
        RecordedModule& module = moduleOf(run, places, line["module"].asString());
        module.finding.reset();
        module.began = clock;
    } else if (event == "decided" || event == "finished") {
        RecordedModule& module = moduleOf(run, places, line["module"].asString());
        module.finding = ModuleFinding{line["result"].asInt(), reasonOf(line["reason"].asString()),
                                       line["detail"].asString()};
        module.offered = line["offered"].asString();
        module.expectedSeconds = line["seconds"].asInt();
        module.seconds = std::round((clock - module.began) * 1000) / 1000;
        // A key that does not fit leaves no text where the version is, and a plug-in that is asked
        // about it may say anything but yes.
        ModuleReason& reason = module.finding->reason;
        if (line.isMember("offered") && line["offered"].isNull() && module.finding->result != 1 &&
            (reason == ModuleReason::kCheckFailed || reason == ModuleReason::kUpToDate)) {
            reason = ModuleReason::kNotDeciphered;
        }
    }
}

}  // namespace

const RecordedModule* RecordedRun::present() const
{
    const auto found = std::find_if(modules.begin(), modules.end(), [](const RecordedModule& one) {
        return !one.finding.has_value();
    });
    return found != modules.end() ? &*found : nullptr;
}

std::optional<RecordedRun> readRecordedRun(const std::string& name)
{
    const std::optional<std::string> text =
        readRegularFile(paths::kRunRecords + name + ".jsonl", kLargestRecord, O_NOFOLLOW);
    if (!text) {
        return std::nullopt;
    }
    RecordedRun run;
    Places places;
    std::istringstream lines(*text);
    for (std::string line; std::getline(lines, line) && !lines.eof();) {
        try {
            Json::Value value;
            std::istringstream(line) >> value;
            take(value, run, places);
        } catch (const std::exception&) {
            return std::nullopt;  // no record of ours
        }
    }
    return run;
}

std::optional<RecordedRun> readRecordedRun(const std::string& name, const std::string& stick,
                                           double since)
{
    std::optional<RecordedRun> run = readRecordedRun(name);
    return run && run->began >= since && run->directory == stick + "/" ? run : std::nullopt;
}

}  // namespace quillon
