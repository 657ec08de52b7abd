/// The control layer's reports for programs.
#ifndef QUILLON_QUILLONCTL_MODULE_JSON_REPORT_H
#define QUILLON_QUILLONCTL_MODULE_JSON_REPORT_H

#include "tools/quillonctl/modules/module-report.h"

namespace quillon {

/// Writes one JSON object, in one line, to standard output: the verb's result, or the error that
/// ended it. An update that has to wait writes one for that before. Each has the member "event";
/// quillonctl(1) lists the events and their other members. Warnings go to standard error.
class ModuleJsonReport : public ModuleReport
{
public:
    void modules(const std::vector<ModuleEntry>& entries) override;
    void checked(const ModuleSource& source, const std::vector<ModuleCheck>& checks) override;
    void version(const ModuleEntry& entry) override;
    void progress(const std::string& name, unsigned int percent) override;
    void waitingForOthers(const SlotHolders& holders) override;
    void updating(const std::string& /*name*/) override {}
    void progressed(int /*percent*/, int /*secondsLeft*/) override {}
    void waitingForLate(const std::string& /*name*/) override {}
    void updated(const ModuleSource& source, const std::vector<ModuleUpdate>& updates,
                 ExitCode code) override;
    void downloading(std::size_t /*packages*/) override {}
    void downloaded(const std::vector<ModuleDownload>& downloads, ExitCode code) override;
    void unlocked(bool released) override;
    void warning(const std::string& text) override;
    void error(ExitCode code, const std::string& text) override;
};

}  // namespace quillon

#endif
