#pragma once

#include <string>

namespace Json {
class Value;
}

namespace quillon {

/// The history's files in its directory: the recent lines, and the ones before them.
inline constexpr const char* kHistory = "history.jsonl";
inline constexpr const char* kEarlierHistory = "earlier-history.jsonl";

/// Appends the lines of each update, see RunRecord, to "history.jsonl", and syncs each one: after a
/// power cut in a module, the last line names the module. A new run first ends a line that was cut.
/// If the run before could not be written to its end, the new run's first line has "lost": true.
///
/// A run begins a new file when there is 1 MiB in the old one, which becomes the only earlier one.
/// No file grows beyond 2 MiB.
///
/// A run whose lines cannot be written is given up, and the next one is tried. After a disk that
/// needs more than two seconds for a line, the lines of that run are written but not waited for.
///
/// Thread: one at a time. Throws std::bad_alloc.
class RunHistory
{
public:
    /// @param directory    with "/" at its end; without it, nothing is kept and nothing is made
    /// @param longestSync  seconds after which the disk counts as slow
    explicit RunHistory(const std::string& directory, double longestSync = 2)
        : directory_(directory), longestSync_(longestSync)
    {
    }

    bool hasDirectory() const;

    /// Adds the first line of a run.
    void begin(Json::Value line);
    /// Adds another one, up to its end.
    void add(const Json::Value& line);
    /// A line of the run is missing.
    void giveUp() noexcept;

private:
    bool startFile() const;
    bool append(const std::string& text);

    const std::string directory_;
    const double longestSync_;
    bool isKept_ = false;  ///< a run has begun, and all its lines are written
    bool isLost_ = false;  ///< the lines of the latest run in the file lack its end
    bool isSlow_ = false;  ///< the disk, in this run
};

}  // namespace quillon
