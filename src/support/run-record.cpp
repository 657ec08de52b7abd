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

namespace quillon {
namespace {

constexpr const char* kNames[] = {"start.jsonl", "estimate.jsonl", "update.jsonl"};
constexpr const char* kNewNames[] = {".start.new", ".estimate.new", ".update.new"};
constexpr const char* kEarlierStart = "earlier-start.jsonl";
constexpr mode_t kMode = 0644;

/// Where and under which name a module's event is recorded.
struct Entry
{
    RunRecord::Record record;
    const char* event;
    bool hasResult;
};

Entry entryOf(ModuleEvent event)
{
    switch (event) {
        case ModuleEvent::kLoading:
            return {RunRecord::kStart, "loading", false};
        case ModuleEvent::kLoaded:
            return {RunRecord::kStart, "loaded", true};
        case ModuleEvent::kChecking:
            return {RunRecord::kEstimate, "checking", false};
        case ModuleEvent::kDecided:
            return {RunRecord::kEstimate, "decided", true};
        case ModuleEvent::kStarted:
            return {RunRecord::kUpdate, "started", false};
        case ModuleEvent::kEnded:
            return {RunRecord::kUpdate, "finished", true};
        default:
            return {RunRecord::kUpdate, "late", false};
    }
}

/// What deciphering with a wrong key leaves is hardly ever text.
bool isText(const std::string& version)
{
    const auto isControl = [](char c) { return static_cast<unsigned char>(c) < ' '; };
    return g_utf8_validate(version.data(), static_cast<gssize>(version.size()), nullptr) != FALSE &&
           std::none_of(version.begin(), version.end(), isControl);
}

std::string textOf(const Json::Value& line)
{
    static const Json::StreamWriterBuilder kStyle = [] {
        Json::StreamWriterBuilder style;
        style["indentation"] = "";
        style["precision"] = 3;
        style["precisionType"] = "decimal";
        return style;
    }();
    return Json::writeString(kStyle, line) + '\n';
}

/// Adds to a file, which is open for no longer than that.
/// @param flags  for open
/// @return whether all of the text has been written
bool append(const std::string& path, int flags, const std::string& text)
{
    constexpr int kFlags = O_WRONLY | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    const UniqueFd file(open(path.c_str(), kFlags | flags, kMode));
    struct stat status = {};
    return file && fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) &&
           writeAll(file.get(), text.data(), text.size());
}

bool write(const std::string& path, int flags, const char* event, Json::Value line)
{
    line["event"] = event;
    line["clock"] = secondsSinceBoot();
    return append(path, flags, textOf(line));
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

RunRecord::RunRecord(const std::string& directory) : directory_(directory)
{
    unnoticed([this] {
        struct stat status = {};
        if (fstatat(AT_FDCWD, directory_.c_str(), &status, 0) == 0) {
            static_cast<void>(std::rename((directory_ + kNames[kStart]).c_str(),
                                          (directory_ + kEarlierStart).c_str()));
            begin(kStart, "");
        }
    });
}

void RunRecord::serving(bool hasKey)
{
    unnoticed([&] {
        Json::Value line;
        line["key"] = hasKey;
        add(kStart, "serving", line);
    });
}

void RunRecord::hear(const ModuleNews& news)
{
    const Entry entry = entryOf(news.event);
    Json::Value line;
    line["module"] = news.libName;
    if (entry.hasResult) {
        line["result"] = news.result;
        line["seconds"] = news.seconds;
    }
    if (news.reason != ModuleReason::kNone) {
        line["reason"] = codeOf(news.reason);
    }
    if (!news.detail.empty()) {
        line["detail"] = news.detail;
    }
    if (!news.offered.empty()) {
        line["offered"] = isText(news.offered) ? Json::Value(news.offered) : Json::Value();
    }
    add(entry.record, entry.event, std::move(line));
}

void RunRecord::hearRun(const RunNews& news)
{
    Json::Value line;
    line["result"] = news.result;
    switch (news.event) {
        case RunEvent::kEstimateBegan:
            return begin(kEstimate, news.directory);
        case RunEvent::kEstimateEnded:
            return add(kEstimate, "ended", std::move(line));
        case RunEvent::kUpdateBegan:
            return begin(kUpdate, news.directory);
        case RunEvent::kUpdateEnded:
            return add(kUpdate, "ended", std::move(line));
    }
}

/// Replaces the record.
/// @param stick  empty where there is none
void RunRecord::begin(Record record, const std::string& stick)
{
    const std::string made = directory_ + kNewNames[record];
    Json::Value line;
    line["at"] = Json::Int64(time(nullptr));
    line["pid"] = getpid();
    if (!stick.empty()) {
        // Clients pad their paths with "/".
        const std::size_t last = stick.find_last_not_of('/');
        line["directory"] = stick.substr(0, last == std::string::npos ? 1 : last + 2);
    }
    isKept_[record] = false;
    unlink(made.c_str());  // left by a service that was killed just here, or a link
    isKept_[record] = write(made, O_CREAT | O_EXCL, "began", std::move(line)) &&
                      chmod(made.c_str(), kMode) == 0 &&  // whatever the umask
                      std::rename(made.c_str(), (directory_ + kNames[record]).c_str()) == 0;
}

/// Gives the record up when a line cannot be written, so that a record with an end lacks none.
void RunRecord::add(Record record, const char* event, Json::Value line)
{
    if (std::exchange(isKept_[record], false)) {
        isKept_[record] = write(directory_ + kNames[record], 0, event, std::move(line));
    }
}

}  // namespace quillon
