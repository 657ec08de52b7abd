#include <algorithm>
#include <chrono>
#include <cstdint>
#include <iostream>

#include "tools/quillonctl/modules/module-report.h"
#include "tools/quillonctl/outside-text.h"
#include "tools/quillonctl/progress-display.h"
#include "tools/quillonctl/text-table.h"

namespace quillon {

namespace {

constexpr std::chrono::seconds kBetweenPlainLines(1);  // as for an update from a stick
constexpr std::size_t kLongestLine = 1000;

/// A text from outside on a line of its own.
std::string fit(const std::string& text)
{
    return cut(printable(text), kLongestLine);
}

std::string orDash(const std::string& text)
{
    return text.empty() ? "-" : text;
}

std::string describe(const ModuleEntry& entry)
{
    switch (entry.kind) {
        case ModuleKind::kProcess:
            return "process module";
        case ModuleKind::kUnusable:
            return "unusable: " + entry.reason;
        default:
            return entry.hasPackage ? "package is here" : "no package";
    }
}

std::string describe(const ModuleCheck& check)
{
    switch (check.decision) {
        case Decision::kNeeded:
            return "needs an update, about " + std::to_string(check.seconds) + " s";
        case Decision::kUpToDate:
            return "up to date";
        case Decision::kUnsound:
            return "cannot be checked: " + check.reason;
        case Decision::kUnusable:
            return "unusable: " + check.reason;
        default:
            return check.reason;
    }
}

std::string describe(const ModuleUpdate& update)
{
    switch (update.outcome) {
        case Outcome::kUpdated:
            return "updated";
        case Outcome::kNotNeeded:
            return "no update needed";
        case Outcome::kFailed:
            return "failed: " + update.reason;
        case Outcome::kTimedOut:
            return "timed out: " + update.reason;
        case Outcome::kUnusable:
            return "unusable: " + update.reason;
        case Outcome::kByNameOnly:
            return "process module, runs by its name only";
        case Outcome::kNotBegun:
            return "not begun: " + (update.reason.empty() ? "interrupted" : update.reason);
        default:
            return update.reason;
    }
}

std::string describeNeed(const std::vector<ModuleCheck>& checks)
{
    int count = 0;
    std::int64_t seconds = 0;
    for (const ModuleCheck& check : checks) {
        if (check.decision == Decision::kNeeded) {
            ++count;
            seconds += check.seconds;
        }
    }
    if (count == 0) {
        return "No module needs an update";
    }
    return (count == 1 ? "1 module needs" : std::to_string(count) + " modules need") +
           " an update, about " + std::to_string(seconds) + " s";
}

class ModuleTextReport final : public ModuleReport
{
public:
    ModuleTextReport(bool quiet, bool onTerminal)
        : quiet_(quiet), onTerminal_(onTerminal), display_(onTerminal)
    {
    }

    void modules(const std::vector<ModuleEntry>& entries) override
    {
        std::vector<TableRow> rows = {{"NAME", "RUNNING", "STATE"}};
        for (const ModuleEntry& entry : entries) {
            rows.push_back({orDash(entry.name), orDash(entry.running), describe(entry)});
        }
        table(rows);
    }

    void checked(const ModuleSource& /*source*/, const std::vector<ModuleCheck>& checks) override
    {
        std::vector<TableRow> rows = {{"NAME", "RUNNING", "OFFERED", "STATE"}};
        for (const ModuleCheck& check : checks) {
            rows.push_back({orDash(check.name), orDash(check.running), orDash(check.offered),
                            describe(check)});
        }
        table(rows);
        if (isNoneUsable(checks)) {
            error(kExitUnusableModule, "no module could be checked, each is unusable");
        } else if (!checks.empty()) {
            line(describeNeed(checks));
        }
    }

    void version(const ModuleEntry& entry) override { line(entry.running); }

    void progress(const std::string& /*name*/, unsigned int percent) override
    {
        line(std::to_string(percent) + " %");
    }

    void waitingForOthers(const SlotHolders& holders) override
    {
        line("Waiting for another update on this device");
        if (!holders.alive.empty()) {
            line("The update semaphore may be held by " + describe(holders.alive));
        } else if (holders.isComplete) {
            const std::string remedy =
                "Nobody is alive who could hold the update semaphore; "
                "\"quillonctl modules unlock\" releases it";
            quiet_ ? warning(remedy) : line(remedy);
        } else {
            line(
                "Whether somebody holds the update semaphore cannot be told by this user; root can "
                "tell");
        }
        if (!holders.stopped.empty()) {
            line("Stopped, and may keep it from being released; let it go on or end it: " +
                 describe(holders.stopped));
        }
    }

    void updating(const std::string& name) override
    {
        line("Updating " + name);
        display_.restart();
        nextPlainLine_ = {};
    }

    void progressed(int percent, int secondsLeft) override
    {
        const auto now = std::chrono::steady_clock::now();
        if (quiet_ || (!onTerminal_ && now < nextPlainLine_)) {
            return;
        }
        nextPlainLine_ = now + kBetweenPlainLines;
        std::cout << display_.show(percent, secondsLeft, terminalWidth()) << std::flush;
    }

    void waitingForLate(const std::string& name) override
    {
        line("The time of " + name + " is over, but it is still being updated; waiting for it");
    }

    void updated(const ModuleSource& /*source*/, const std::vector<ModuleUpdate>& updates,
                 ExitCode code) override
    {
        std::vector<TableRow> rows = {{"NAME", "RUNNING", "OUTCOME"}};
        std::string troubled;
        std::string whyNotBegun;
        for (const ModuleUpdate& update : updates) {
            rows.push_back({orDash(update.name), orDash(update.running), describe(update)});
            if (update.outcome == Outcome::kNotBegun) {
                whyNotBegun = update.reason;
            }
            if (update.outcome == Outcome::kFailed || update.outcome == Outcome::kTimedOut) {
                troubled += " " + update.name;
            }
        }
        table(rows);
        if (!troubled.empty()) {
            error(code, "not updated as wanted:" + troubled);
        }
        if (code == kExitInterrupted) {
            error(code, "interrupted; not every update was begun");
        }
        if (code == kExitSystem) {
            error(code, "not every update was begun: " + whyNotBegun);
        }
    }

    void downloading(std::size_t packages) override
    {
        line(packages == 1 ? "Downloading 1 package"
                           : "Downloading " + std::to_string(packages) + " packages");
    }

    void downloaded(const std::vector<ModuleDownload>& downloads, ExitCode code) override
    {
        std::string troubled;
        for (const ModuleDownload& download : downloads) {
            line(download.name + ": " +
                 (download.downloaded ? "downloaded" : "not downloaded, " + download.reason));
            if (!download.downloaded) {
                troubled += " " + download.name;
            }
        }
        if (code != kExitSuccess) {
            error(code, "not downloaded:" + troubled);
        }
    }

    void unlocked(bool released) override
    {
        line(released ? "The update semaphore was left behind and is released"
                      : "Nothing is locked");
    }

    void warning(const std::string& text) override
    {
        std::cout << display_.end() << std::flush;
        std::cerr << "quillonctl: warning: " << fit(text) << std::endl;
    }

    void error(ExitCode /*code*/, const std::string& text) override
    {
        std::cout << display_.end() << std::flush;
        std::cerr << "quillonctl: " << fit(text) << std::endl;
    }

private:
    void line(const std::string& text)
    {
        if (!quiet_) {
            std::cout << display_.end() << fit(text) << std::endl;
        }
    }

    /// @param rows  the headings, and a row for each module
    void table(std::vector<TableRow> rows)
    {
        if (rows.size() == 1) {
            line("No modules are installed");
            return;
        }
        for (const std::string& text : aligned(std::move(rows))) {
            line(text);
        }
    }

    const bool quiet_;
    const bool onTerminal_;
    ProgressDisplay display_;
    std::chrono::steady_clock::time_point nextPlainLine_;
};

}  // namespace

std::unique_ptr<ModuleReport> makeModuleTextReport(bool quiet, bool onTerminal)
{
    return std::make_unique<ModuleTextReport>(quiet, onTerminal);
}

}  // namespace quillon
