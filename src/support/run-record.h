#pragma once

#include <array>
#include <map>
#include <mutex>
#include <string>

#include "support/module-observer.h"
#include "support/paths.h"
#include "support/record-file.h"
#include "support/run-history.h"

namespace quillon {

/// The clock of records, with milliseconds. Thread: any.
double secondsSinceBoot();

/// Keeps records of what the service does, for programs that tell people of it: which modules have
/// been loaded ("start.jsonl"), what the latest look at a stick has found ("estimate.jsonl"), and
/// how far the latest update has come ("update.jsonl").
///
/// Each file has a JSON object a line. The first is written before anything of its kind is done,
/// and replaces the file of the time before in one step. Each further one is written when it
/// happens, so when the service dies in a module, the last line names the module; only that a
/// module is loaded or decided about is written together with what comes next. A reader passes over
/// a last line without its end. All have "event" and "clock", seconds since boot:
///
///     {"event":"began","clock":12.5,"at":1763856000,"pid":321,"directory":"/media/stick/"}
///     {"event":"checking","clock":12.6,"module":"tuner"}
///     {"event":"decided","clock":12.9,"module":"tuner","result":1,"offered":"2.0","seconds":30}
///     {"event":"ended","clock":13.0,"result":0}
///
/// "at" is the time of day in seconds since 1970. "reason", from codeOf(), and "detail", cut to
/// 4096 bytes, are there where there is one; "offered" is null for a version that is no text, as a
/// wrong key leaves. A module's "started" has what the latest look at a stick has found. A run that
/// was cut off has no "ended".
///
/// The lines of an update are given to the history as well, see RunHistory.
///
/// A file is open only while a line is written: a module that closes a descriptor twice must not
/// have a record written into a file of its own. While modules are loaded, the record of the start
/// is mapped, so that a line costs no system call; lines of that time may end in blanks.
///
/// A file that cannot be made or written is removed, and the service goes on without it: a record
/// that exists is never behind the service. Thread: any; the lines of one file come from one thread
/// at a time.
class RunRecord final : public ModuleObserver
{
public:
    enum Record { kStart, kEstimate, kUpdate, kRecords };

    /// Makes the record of the start.
    /// @param directory  with "/" at its end; must exist, or nothing is recorded there
    /// @param history    as `directory`, for the history
    explicit RunRecord(const std::string& directory,
                       const std::string& history = paths::kRunHistory);

    /// Whether the observer has anything to write to.
    bool isKept() const { return isKept_[kStart] || history_.hasDirectory(); }

    /// All modules are loaded, and commands are served from now on.
    /// @param hasKey  whether images can be deciphered
    void serving(bool hasKey);

    void hear(const ModuleNews& news) override;
    void hearRun(const RunNews& news) override;
    void miss(ModuleEvent event) noexcept override;
    void missRun(RunEvent event) noexcept override;

private:
    void giveUp(Record record) noexcept;
    void begin(Record record, const std::string& stick);
    void write(Record record, const std::string& text);
    void add(Record record, const std::string& line);
    void addWhileLoading(const std::string& line);
    std::string offeredTo(const ModuleNews& news);

    const std::string directory_;
    const std::array<std::string, kRecords> paths_;
    bool isKept_[kRecords] = {};
    RunHistory history_;
    std::string held_[kRecords];  ///< lines that are still to be written
    MappedRoom loading_;          ///< in the record of the start
    std::mutex mutex_;
    std::map<std::string, std::string> offers_;  ///< as JSON, what looks have found; with mutex_
};

}  // namespace quillon
