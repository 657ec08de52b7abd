#include "support/run-record.h"

#include <fcntl.h>
#include <glib.h>
#include <json/writer.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <utility>

#include "base/fd.h"
#include "base/replace-file.h"
#include "support/module-reason.h"

namespace quillon {
namespace {

constexpr const char* kNames[] = {"start.jsonl", "estimate.jsonl", "update.jsonl"};
constexpr const char* kNewNames[] = {".start.new", ".estimate.new", ".update.new"};
constexpr const char* kEarlierStart = "earlier-start.jsonl";
constexpr mode_t kMode = 0644;
constexpr std::size_t kLongestDetail = 4096;

/// Where and under which name a module's event is recorded.
struct Entry
{
    RunRecord::Record record;
    const char* event;
    bool hasResult;
    bool hasSeconds;
};

Entry entryOf(ModuleEvent event)
{
    switch (event) {
        case ModuleEvent::kLoading:
            return {RunRecord::kStart, "loading", false, false};
        case ModuleEvent::kLoaded:
            return {RunRecord::kStart, "loaded", true, true};
        case ModuleEvent::kChecking:
            return {RunRecord::kEstimate, "checking", false, false};
        case ModuleEvent::kDecided:
            return {RunRecord::kEstimate, "decided", true, true};
        case ModuleEvent::kStarted:
            return {RunRecord::kUpdate, "started", false, true};
        case ModuleEvent::kEnded:
            return {RunRecord::kUpdate, "finished", true, true};
        default:
            return {RunRecord::kUpdate, "late", false, false};
    }
}

/// What deciphering with a wrong key leaves is hardly ever text.
bool isText(const std::string& version)
{
    const auto isControl = [](char c) { return static_cast<unsigned char>(c) < ' '; };
    return g_utf8_validate(version.data(), static_cast<gssize>(version.size()), nullptr) != FALSE &&
           std::none_of(version.begin(), version.end(), isControl);
}

std::int64_t millisecondsSinceBoot()
{
    constexpr long kNanosecondsPerMillisecond = 1000000;
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / kNanosecondsPerMillisecond;
}

void addClock(Line& line)
{
    const std::int64_t now = millisecondsSinceBoot();
    const std::string fraction = std::to_string(now % 1000);
    line.addJson("clock", std::to_string(now / 1000) + "." + std::string(3 - fraction.size(), '0') +
                              fraction);
}

/// Adds to a file, which is open for no longer than that.
/// @param flags  for open
/// @return whether all of the lines have been written
bool append(const std::string& path, int flags, const std::string& lines)
{
    struct stat status = {};
    const UniqueFd file = openForLines(path, O_WRONLY | flags, status);
    return file && writeAll(file.get(), lines.data(), lines.size());
}

}  // namespace

double secondsSinceBoot()
{
    return static_cast<double>(millisecondsSinceBoot()) / 1000;
}

RunRecord::RunRecord(const std::string& directory, const std::string& history)
    : directory_(directory),
      paths_{directory + kNames[kStart], directory + kNames[kEstimate],
             directory + kNames[kUpdate]},
      history_(history)
{
    unnoticed([this] {
        struct stat status = {};
        if (fstatat(AT_FDCWD, directory_.c_str(), &status, 0) == 0) {
            static_cast<void>(
                std::rename(paths_[kStart].c_str(), (directory_ + kEarlierStart).c_str()));
            begin(kStart, "");
        }
    });
}

void RunRecord::serving(bool hasKey)
{
    unnoticed([&] {
        Line line;
        addClock(line);
        line.add("event", "serving").addJson("key", hasKey ? "true" : "false");
        add(kStart, line.ended());
    });
}

void RunRecord::hear(const ModuleNews& news)
{
    if (news.event == ModuleEvent::kFlashing) {
        return history_.keep();
    }
    const Entry entry = entryOf(news.event);
    Line line;
    addClock(line);
    if (!news.detail.empty()) {
        line.add("detail", news.detail.substr(0, kLongestDetail));
    }
    line.add("event", entry.event).add("module", news.libName);
    if (const std::string offered = offeredTo(news); !offered.empty()) {
        line.addJson("offered", offered);
    }
    if (news.reason != ModuleReason::kNone) {
        line.add("reason", codeOf(news.reason));
    }
    if (entry.hasResult) {
        line.add("result", news.result);
    }
    if (entry.hasSeconds) {
        line.add("seconds", news.seconds);
    }
    if (news.event == ModuleEvent::kLoading) {
        addWhileLoading(line.ended());
    } else if (news.event == ModuleEvent::kLoaded || news.event == ModuleEvent::kDecided) {
        held_[entry.record] = line.ended();
    } else {
        add(entry.record, line.ended());
    }
}

void RunRecord::hearRun(const RunNews& news)
{
    Line line;
    addClock(line);
    const std::string ended = line.add("event", "ended").add("result", news.result).ended();
    switch (news.event) {
        case RunEvent::kModulesLoaded:
            loading_.close(paths_[kStart]);
            return write(kStart, "");
        case RunEvent::kEstimateBegan:
            return begin(kEstimate, news.directory);
        case RunEvent::kEstimateEnded:
            return add(kEstimate, ended);
        case RunEvent::kUpdateBegan:
            return begin(kUpdate, news.directory);
        case RunEvent::kUpdateEnded:
            write(kUpdate, ended);
            return history_.end(ended);
    }
}

void RunRecord::miss(ModuleEvent event) noexcept
{
    if (event == ModuleEvent::kFlashing) {
        return history_.giveUp();
    }
    giveUp(entryOf(event).record);
}

void RunRecord::missRun(RunEvent event) noexcept
{
    if (event == RunEvent::kModulesLoaded) {
        return giveUp(kStart);
    }
    const bool isEstimate = event == RunEvent::kEstimateBegan || event == RunEvent::kEstimateEnded;
    giveUp(isEstimate ? kEstimate : kUpdate);
}

void RunRecord::giveUp(Record record) noexcept
{
    isKept_[record] = false;
    unlink(paths_[record].c_str());
    if (record == kStart) {
        loading_.drop();
    }
    if (record == kUpdate) {
        history_.giveUp();
    }
}

/// Replaces the record.
/// @param stick  empty where there is none
void RunRecord::begin(Record record, const std::string& stick)
{
    const std::string made = directory_ + kNewNames[record];
    Line about;
    about.add("at", time(nullptr));
    addClock(about);
    if (!stick.empty()) {
        // A client may pad its path with "/".
        const std::size_t last = stick.find_last_not_of('/');
        about.add("directory", stick.substr(0, last == std::string::npos ? 1 : last + 2));
    }
    const std::string line = about.add("event", "began").add("pid", getpid()).ended();
    isKept_[record] = false;
    held_[record].clear();
    unlink(made.c_str());  // left by a service that was killed just here, or a link
    isKept_[record] = append(made, O_CREAT | O_EXCL, line) &&
                      chmod(made.c_str(), kMode) == 0 &&  // whatever the umask
                      std::rename(made.c_str(), paths_[record].c_str()) == 0;
    if (record == kUpdate) {
        history_.begin(line);
    }
}

/// Writes the line that has been held back, and a text after it. Gives the record up when that
/// fails, so that a record with an end lacks no line.
void RunRecord::write(Record record, const std::string& text)
{
    if (std::exchange(isKept_[record], false)) {
        const std::string lines = std::exchange(held_[record], {}) + text;
        isKept_[record] = append(paths_[record], 0, lines);
        if (!isKept_[record]) {
            unlink(paths_[record].c_str());
        }
    }
}

void RunRecord::add(Record record, const std::string& line)
{
    write(record, line);
    if (record == kUpdate) {
        history_.add(line);
    }
}

/// As add() for the record of the start, with the line that has been held back.
void RunRecord::addWhileLoading(const std::string& line)
{
    if (!std::exchange(isKept_[kStart], false)) {
        return;
    }
    const std::string held = std::exchange(held_[kStart], {});
    if (held.empty() || loading_.add(held)) {
        isKept_[kStart] = loading_.add(line) || loading_.open(paths_[kStart], line);
    } else {
        isKept_[kStart] = loading_.open(paths_[kStart], held + line);
    }
    if (!isKept_[kStart]) {
        giveUp(kStart);
    }
}

/// Gives the version of a look to the line of an update which has begun: the update itself finds it
/// only later, and may be cut off before.
/// @return as JSON; empty for none
std::string RunRecord::offeredTo(const ModuleNews& news)
{
    std::string offered;
    if (!news.offered.empty()) {
        offered = isText(news.offered) ? Json::valueToQuotedString(news.offered.c_str()) : "null";
    }
    if (news.event == ModuleEvent::kDecided || news.event == ModuleEvent::kStarted) {
        const std::lock_guard<std::mutex> lock(mutex_);
        std::string& offer = offers_[news.libName];
        if (news.event == ModuleEvent::kDecided) {
            offer = offered != "null" ? offered : "";
        } else if (!offer.empty()) {
            return offer;
        }
    }
    return offered;
}

}  // namespace quillon
