#pragma once

#include <string>

#include "base/fd.h"
#include "support/module-observer.h"

namespace Json {
class Value;
}

namespace quillon {

/// The clock of records, with milliseconds. Thread: any.
double secondsSinceBoot();

/// Keeps records of what the service does, for programs that tell people of it: which modules have
/// been loaded ("start.jsonl"), what the latest look at a stick has found ("estimate.jsonl"), and
/// how far the latest update has come ("update.jsonl"). The names are the same below, in `Record`.
///
/// Each file has a JSON object a line. The first is written before anything of its kind is done,
/// and replaces the file of the time before in one step. Each further one is written when it
/// happens, so when the service dies in a module, the last line names the module. A reader passes
/// over a last line without its end. All have "event" and "clock", seconds since boot:
///
///     {"event":"began","clock":12.5,"at":1763856000,"pid":321,"directory":"/media/stick/"}
///     {"event":"checking","clock":12.6,"module":"tuner"}
///     {"event":"decided","clock":12.9,"module":"tuner","result":1,"offered":"2.0","seconds":30}
///     {"event":"ended","clock":13.0,"result":0}
///
/// "at" is the time of day in seconds since 1970. "reason", from codeOf(), and "detail" are there
/// where there is one; "offered" is null for a version that is no text, as a wrong key leaves. A
/// run that was cut off has no "ended". The service has a lock on "start.jsonl" as long as it lives
/// (fcntl(2), F_SETLK).
///
/// A file that cannot be made or written is given up; the service goes on without it. Thread: any;
/// the lines of one file come from one thread at a time.
class RunRecord final : public ModuleObserver
{
public:
    enum Record { kStart, kEstimate, kUpdate, kRecords };

    /// Makes the record of the start.
    /// @param directory  must exist; where it does not, nothing is recorded
    explicit RunRecord(const std::string& directory);

    bool isKept() const { return directory_.get() != -1; }

    /// All modules are loaded, and commands are served from now on.
    /// @param hasKey  whether images can be deciphered
    void serving(bool hasKey);

    void hear(const ModuleNews& news) override;
    void hearRun(const RunNews& news) override;

private:
    void begin(Record record, const std::string& stick);
    void add(Record record, const char* event, Json::Value line);

    const UniqueFd directory_;
    UniqueFd files_[kRecords];  ///< stay open: closing one would release its lock
    bool isKept_[kRecords] = {};
};

}  // namespace quillon
