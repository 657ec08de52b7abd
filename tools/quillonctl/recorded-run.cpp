#include "tools/quillonctl/recorded-run.h"

#include <fcntl.h>
#include <json/json.h>
#include <signal.h>

#include <cerrno>
#include <cmath>
#include <exception>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "base/regular-file.h"
#include "base/task-start.h"
#include "src/support/module-reason.h"
#include "src/support/paths.h"

namespace quillon {
namespace {

constexpr std::size_t kLargestRecord = 16U << 20U;

/// Throws std::exception for a number that no clock shows.
void requireTime(double seconds)
{
    constexpr double kLongest = 1e12;
    if (!(seconds >= 0 && seconds <= kLongest)) {
        throw std::out_of_range("a time");
    }
}

}  // namespace

Json::Value objectIn(const std::string& line)
{
    // To make a reader takes longer than to read a line, and there may be millions of lines.
    thread_local const std::unique_ptr<Json::CharReader> reader(
        Json::CharReaderBuilder().newCharReader());
    Json::Value value;
    const bool isRead = reader->parse(line.data(), line.data() + line.size(), &value, nullptr);
    return isRead && value.isObject() ? value : Json::Value();
}

void RunLines::take(const Json::Value& line)
{
    if (!line.isObject()) {
        throw std::invalid_argument("no object");
    }
    const std::string event = line["event"].asString();
    const double clock = line["clock"].asDouble();
    requireTime(clock);
    // The module's entry; at need a new one, which begins now.
    const auto module = [&]() -> RecordedModule& {
        const std::string name = line["module"].asString();
        const auto [place, isNew] = places_.try_emplace(name, run.modules.size());
        if (isNew) {
            run.modules.push_back({name, {}, {}, 0, clock, 0});
        }
        return run.modules[place->second];
    };
    if (event == "began") {
        run.began = clock;
        run.at = line["at"].asInt64();
        requireTime(static_cast<double>(run.at));
        run.service = line["pid"].asInt();
        run.directory = line["directory"].asString();
    } else if (event == "ended" || event == "serving") {
        run.result = line["result"].asInt();
        run.ended = clock;
        if (line.isMember("key")) {
            run.hasKey = line["key"].asBool();
        }
    } else if (event == "checking" || event == "started" || event == "loading") {
        RecordedModule& begun = module();
        begun.finding.reset();
        begun.offered = line["offered"].asString();
        begun.expectedSeconds = line["seconds"].asInt();
        begun.began = clock;
    } else if (event == "decided" || event == "finished" || event == "loaded") {
        RecordedModule& done = module();
        done.finding = ModuleFinding{line["result"].asInt(), reasonOf(line["reason"].asString()),
                                     line["detail"].asString()};
        done.offered = line["offered"].asString();
        done.expectedSeconds = line["seconds"].asInt();
        done.seconds = std::round((clock - done.began) * 1000) / 1000;
        // A key that does not fit leaves no text where the version is, and a plug-in that is asked
        // about it may say anything but yes.
        ModuleReason& reason = done.finding->reason;
        if (line.isMember("offered") && line["offered"].isNull() && done.finding->result != 1 &&
            (reason == ModuleReason::kCheckFailed || reason == ModuleReason::kUpToDate)) {
            reason = ModuleReason::kNotDeciphered;
        }
    } else if (event == "late") {
        RecordedModule& late = module();
        late.isLate = !late.finding;
    }
}

bool hasServiceEnded(const RecordedRun& run)
{
    if (run.service <= 0 || (kill(run.service, 0) != 0 && errno == ESRCH)) {
        return true;
    }
    const std::string task = "/proc/" + std::to_string(run.service);
    // Its number may be another process's by now.
    return isUnreapedTask(task) || startOfTask(task) > run.began;
}

const RecordedModule* RecordedRun::present() const
{
    const RecordedModule* present = nullptr;
    for (const RecordedModule& one : modules) {
        if (!one.finding && (present == nullptr || (present->isLate && !one.isLate))) {
            present = &one;
        }
    }
    return present;
}

std::optional<RecordedRun> readRecordedRun(const std::string& name)
{
    const std::optional<std::string> text =
        readRegularFile(paths::kRunRecords + name + ".jsonl", kLargestRecord, O_NOFOLLOW);
    if (!text) {
        return std::nullopt;
    }
    RunLines record;
    std::istringstream lines(*text);
    for (std::string line; std::getline(lines, line) && !lines.eof();) {
        if (line.find_first_not_of(' ') == std::string::npos) {
            continue;  // of a service that was killed while it took the blanks away
        }
        try {
            record.take(objectIn(line));
        } catch (const std::exception&) {
            return std::nullopt;  // no record of ours
        }
    }
    return record.run;
}

std::optional<RecordedRun> readRecordedRun(const std::string& name, const std::string& stick,
                                           double since)
{
    std::optional<RecordedRun> run = readRecordedRun(name);
    return run && run->began >= since && run->directory == stick + "/" ? run : std::nullopt;
}

}  // namespace quillon
