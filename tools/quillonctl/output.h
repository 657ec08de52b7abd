/// How quillonctl writes what it has to say.
#pragma once

#include <json/value.h>

#include <map>
#include <string>

#include "tools/quillonctl/exit-codes.h"
#include "tools/quillonctl/progress-display.h"

namespace quillon {

/// The members of a JSON object. Those whose value is null are left out.
using JsonMembers = std::map<std::string, Json::Value>;

/// Throws std::bad_alloc.
Json::Value jsonObject(const JsonMembers& members);

/// Writes for people: lines on standard output, errors on standard error. Or writes for programs:
/// one JSON object per line on standard output, errors included. Every object has the member
/// "event"; quillonctl(1) lists the events and their other members. Each line is out before the
/// call returns, but for holdBack(). Thread: one at a time. Throws std::bad_alloc.
class Output
{
public:
    /// @param forPrograms  write JSON
    /// @param quiet        say nothing but errors
    /// @param onTerminal   standard output is a terminal that can redraw a line
    Output(bool forPrograms, bool quiet, bool onTerminal)
        : forPrograms_(forPrograms), quiet_(quiet), display_(onTerminal)
    {
    }

    bool isForPrograms() const { return forPrograms_; }
    bool isQuiet() const { return quiet_; }
    /// Whether a line would be taken at once: not by a full pipe that nobody reads, nor by a
    /// terminal that has been stopped. Thread: any.
    static bool isRead();

    /// @name While others wait for this program
    /// Between these two calls nothing waits for a reader. What standard output does not take at
    /// once is kept and written later; progress is left out.
    /// @{
    void holdBack() { isHeldBack_ = true; }
    void letGo();
    /// @}

    /// @param name     the object's member "event"
    /// @param members  its others
    /// @param text     the same for people
    void say(const char* name, const JsonMembers& members, const std::string& text);
    void error(ExitCode code, const std::string& text);
    /// Something went wrong that does not change the result. On standard error for programs as
    /// well.
    void warning(const std::string& text);

    /// Says something to programs alone.
    void event(const char* name, const JsonMembers& members);

    /// @name Said to people alone
    /// @{
    void line(const std::string& text);
    /// On standard error, unless --quiet.
    void advice(const std::string& text);
    /// To be called at every poll; writes nothing where nothing has changed.
    /// @param secondsLeft  0 when the update takes longer than expected
    void progress(int percent, int secondsLeft);
    /// The progress from now on is that of another update.
    void restartProgress() { display_.restart(); }
    /// @}

    /// Writes a line to standard error, whoever reads.
    void complain(const std::string& text);

private:
    void put(const std::string& text);

    const bool forPrograms_;
    const bool quiet_;
    bool isHeldBack_ = false;
    std::string held_;
    ProgressDisplay display_;
};

}  // namespace quillon
