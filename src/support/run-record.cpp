#include "support/run-record.h"

#include <fcntl.h>
#include <json/json.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <exception>
#include <utility>

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
    return std::all_of(version.begin(), version.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

/// @return whether all of the line has been written
bool writeLine(const UniqueFd& file, const Json::Value& line)
{
    Json::StreamWriterBuilder style;
    style["indentation"] = "";
    style["precision"] = 3;
    style["precisionType"] = "decimal";
    const std::string text = Json::writeString(style, line) + '\n';
    return writeAll(file.get(), text.data(), text.size());
}

/// Keeps errno, which log lines tell of, and lets no lack of memory out.
template <typename Work>
void unnoticed(Work work)
{
    const int callersErrno = errno;
    try {
        work();
    } catch (const std::exception&) {
        // Then this line is missing.
    }
    errno = callersErrno;
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

RunRecord::RunRecord(const std::string& directory)
    : directory_(open(directory.c_str(), O_DIRECTORY | O_RDONLY | O_CLOEXEC))
{
    if (isKept()) {
        unnoticed([this] {
            renameat(directory_.get(), kNames[kStart], directory_.get(), kEarlierStart);
            begin(kStart, "");
            struct flock mine = {};
            mine.l_type = F_WRLCK;
            fcntl(files_[kStart].get(), F_SETLK, &mine);
        });
    }
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
    unnoticed([&] {
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
    });
}

void RunRecord::hearRun(const RunNews& news)
{
    unnoticed([&] {
        Json::Value line;
        switch (news.event) {
            case RunEvent::kEstimateBegan:
                return begin(kEstimate, news.directory);
            case RunEvent::kUpdateBegan:
                return begin(kUpdate, news.directory);
            case RunEvent::kEstimateEnded:
            case RunEvent::kUpdateEnded:
                line["result"] = news.result;
                return add(news.event == RunEvent::kUpdateEnded ? kUpdate : kEstimate, "ended",
                           std::move(line));
        }
    });
}

/// Replaces the record.
/// @param stick  empty where there is none
void RunRecord::begin(Record record, const std::string& stick)
{
    // A file left by a service that was killed just here, or a link somebody has put there.
    unlinkat(directory_.get(), kNewNames[record], 0);
    files_[record] = UniqueFd(openat(directory_.get(), kNewNames[record],
                                     O_CREAT | O_EXCL | O_WRONLY | O_APPEND | O_CLOEXEC, kMode));
    isKept_[record] = fchmod(files_[record].get(), kMode) == 0;  // whatever the umask
    Json::Value line;
    line["at"] = Json::Int64(time(nullptr));
    line["pid"] = getpid();
    if (!stick.empty()) {
        // Clients pad their paths with "/".
        const std::size_t last = stick.find_last_not_of('/');
        line["directory"] = stick.substr(0, last == std::string::npos ? 1 : last + 2);
    }
    add(record, "began", std::move(line));
    isKept_[record] = isKept_[record] && renameat(directory_.get(), kNewNames[record],
                                                  directory_.get(), kNames[record]) == 0;
}

/// Gives the record up when the line cannot be written: a line behind a part of one would be lost
/// with it.
void RunRecord::add(Record record, const char* event, Json::Value line)
{
    if (isKept_[record]) {
        line["event"] = event;
        line["clock"] = secondsSinceBoot();
        isKept_[record] = writeLine(files_[record], line);
    }
}

}  // namespace quillon
