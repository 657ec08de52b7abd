#pragma once

#include <string>

namespace quillon {

/// The history's files in its directory: the recent lines, the ones before them, and the latest
/// runs that were refused.
inline constexpr const char* kHistory = "history.jsonl";
inline constexpr const char* kEarlierHistory = "earlier-history.jsonl";
inline constexpr const char* kRefusedRuns = "refused.jsonl";

/// A link in the directory that leads nowhere, as long as the lines of the latest run in the file
/// lack its end although the service went on. To make one takes no descriptor and hardly any room.
inline constexpr const char* kLostLines = ".lost";

/// Appends the lines of each update, see RunRecord, to "history.jsonl".
///
/// Any user can make the service begin runs in which nothing can be installed. So the lines of a
/// run stay in memory until its first plug-in is about to be asked to install, or until there is
/// 1 MiB of them. Then they are written, and from then on each one at once, and synced: after a
/// power cut in a module, the last line names the module. A run that ends before that is refused:
/// it goes to "refused.jsonl" and is not synced, or nowhere if it has no module. A run in which the
/// service dies before that leaves nothing.
///
/// A new run first ends a line that was cut. If the run before in "history.jsonl" could not be
/// written to its end, there is a link ".lost" until then, and the new run's first line has "lost":
/// true.
///
/// A run begins a new "history.jsonl" when there is 1 MiB in the old one, which becomes the only
/// earlier one. None grows beyond 2 MiB. Refused runs that no longer fit into 64 KiB begin a new
/// file, which holds one at least, and the old one is gone.
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
        : directory_(directory), lostLines_(directory + kLostLines), longestSync_(longestSync)
    {
    }

    bool hasDirectory() const;

    /// @name The lines of a run with their ends: its first, others, and its last
    /// @{
    void begin(const std::string& line);
    void add(const std::string& line);
    void end(const std::string& line);
    /// @}

    /// A plug-in is about to be asked to install: brings the run's lines to the disk.
    void keep();
    /// A line of the run is missing. If nothing of it is written yet, what there is will be, at the
    /// latest at its end.
    void giveUp() noexcept;

private:
    enum class Place { kNowhere, kMemory, kFile };

    bool startFile() const;
    bool append(const std::string& text);
    void addRefused(const std::string& text) const;

    void markLost(bool isLost) noexcept;

    const std::string directory_;
    const std::string lostLines_;
    const double longestSync_;
    Place place_ = Place::kNowhere;  ///< where all lines of a run are that has begun
    std::string first_;              ///< the first line of a run in memory
    std::string others_;             ///< the others
    bool isMissed_ = false;          ///< the lines in memory lack one
    bool isLost_ = false;  ///< an error is about to leave the lines in the file without an end
    bool isSlow_ = false;  ///< the disk, in this run
};

}  // namespace quillon
