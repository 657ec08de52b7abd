#include "support/run-record.h"

#include <fcntl.h>
#include <glib.h>
#include <json/json.h>
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
#include "support/record-file.h"

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

Json::Value lineAbout(const char* event)
{
    Json::Value line;
    line["event"] = event;
    line["clock"] = secondsSinceBoot();
    return line;
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
    constexpr long kNanosecondsPerMillisecond = 1000000;
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    const std::int64_t milliseconds =
        std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / kNanosecondsPerMillisecond;
    return static_cast<double>(milliseconds) / 1000;
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
        Json::Value line = lineAbout("serving");
        line["key"] = hasKey;
        add(kStart, line);
    });
}

void RunRecord::hear(const ModuleNews& news)
{
    if (news.event == ModuleEvent::kFlashing) {
        return history_.keep();
    }
    const Entry entry = entryOf(news.event);
    Json::Value line = lineAbout(entry.event);
    line["module"] = news.libName;
    if (entry.hasResult) {
        line["result"] = news.result;
    }
    if (entry.hasSeconds) {
        line["seconds"] = news.seconds;
    }
    if (news.reason != ModuleReason::kNone) {
        line["reason"] = codeOf(news.reason);
    }
    if (!news.detail.empty()) {
        line["detail"] = news.detail.substr(0, kLongestDetail);
    }
    if (!news.offered.empty()) {
        line["offered"] = isText(news.offered) ? Json::Value(news.offered) : Json::Value();
    }
    rememberOffer(news.event, line);
    if (news.event == ModuleEvent::kLoaded || news.event == ModuleEvent::kDecided) {
        held_[entry.record] = lineOf(line);
    } else {
        add(entry.record, line);
    }
}

void RunRecord::hearRun(const RunNews& news)
{
    Json::Value ended = lineAbout("ended");
    ended["result"] = news.result;
    switch (news.event) {
        case RunEvent::kModulesLoaded:
            return write(kStart, "");
        case RunEvent::kEstimateBegan:
            return begin(kEstimate, news.directory);
        case RunEvent::kEstimateEnded:
            return add(kEstimate, ended);
        case RunEvent::kUpdateBegan:
            return begin(kUpdate, news.directory);
        case RunEvent::kUpdateEnded:
            write(kUpdate, lineOf(ended));
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
    if (record == kUpdate) {
        history_.giveUp();
    }
}

/// Replaces the record.
/// @param stick  empty where there is none
void RunRecord::begin(Record record, const std::string& stick)
{
    const std::string made = directory_ + kNewNames[record];
    Json::Value line = lineAbout("began");
    line["at"] = Json::Int64(time(nullptr));
    line["pid"] = getpid();
    if (!stick.empty()) {
        // A client may pad its path with "/".
        const std::size_t last = stick.find_last_not_of('/');
        line["directory"] = stick.substr(0, last == std::string::npos ? 1 : last + 2);
    }
    isKept_[record] = false;
    held_[record].clear();
    unlink(made.c_str());  // left by a service that was killed just here, or a link
    isKept_[record] = append(made, O_CREAT | O_EXCL, lineOf(line)) &&
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

void RunRecord::add(Record record, const Json::Value& line)
{
    write(record, lineOf(line));
    if (record == kUpdate) {
        history_.add(line);
    }
}

/// Takes the version from a look's line, and gives it to that of an update which has begun: the
/// update itself finds it only later, and may be cut off before.
void RunRecord::rememberOffer(ModuleEvent event, Json::Value& line)
{
    if (event != ModuleEvent::kDecided && event != ModuleEvent::kStarted) {
        return;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    Json::Value& offer = offers_[line["module"].asString()];
    if (event == ModuleEvent::kDecided) {
        offer = line.get("offered", Json::Value());
    } else if (!offer.isNull()) {
        line["offered"] = offer;
    }
}

}  // namespace quillon
