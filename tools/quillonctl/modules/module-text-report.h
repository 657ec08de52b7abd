/// The control layer's reports for people.
#ifndef QUILLON_QUILLONCTL_MODULE_TEXT_REPORT_H
#define QUILLON_QUILLONCTL_MODULE_TEXT_REPORT_H

#include <chrono>

#include "tools/quillonctl/modules/module-report.h"
#include "tools/quillonctl/progress-display.h"

namespace quillon {

/// Writes to standard output, errors and warnings to standard error. Each line is out before the
/// call returns.
class ModuleTextReport : public ModuleReport
{
public:
    /// @param quiet       say nothing but errors and warnings
    /// @param onTerminal  standard output is a terminal that can redraw a line
    ModuleTextReport(bool quiet, bool onTerminal)
        : quiet_(quiet), onTerminal_(onTerminal), display_(onTerminal)
    {
    }

    void modules(const std::vector<ModuleEntry>& entries) override;
    void checked(const ModuleSource& source, const std::vector<ModuleCheck>& checks) override;
    void version(const ModuleEntry& entry) override;
    void progress(const std::string& name, unsigned int percent) override;
    void waitingForOthers(const SlotHolders& holders) override;
    void updating(const std::string& name) override;
    void progressed(int percent, int secondsLeft) override;
    void waitingForLate(const std::string& name) override;
    void updated(const ModuleSource& source, const std::vector<ModuleUpdate>& updates,
                 ExitCode code) override;
    void downloading(std::size_t packages) override;
    void downloaded(const std::vector<ModuleDownload>& downloads, ExitCode code) override;
    void unlocked(bool released) override;
    void warning(const std::string& text) override;
    void error(ExitCode code, const std::string& text) override;

private:
    using Row = std::vector<std::string>;

    void line(const std::string& text);
    void table(std::vector<Row> rows);

    const bool quiet_;
    const bool onTerminal_;
    ProgressDisplay display_;
    std::chrono::steady_clock::time_point nextPlainLine_;
};

}  // namespace quillon

#endif
