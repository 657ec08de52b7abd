#include <iostream>

#include "tools/quillonctl/json-line.h"
#include "tools/quillonctl/modules/module-report.h"
#include "tools/quillonctl/outside-text.h"

namespace quillon {

namespace {

/// Whole, whatever a reasonable module or image says.
constexpr std::size_t kLongestText = 4096;

/// @return null, which is left out, when the text is not known
Json::Value known(const std::string& text)
{
    return text.empty() ? Json::Value() : cut(text, kLongestText);
}

const char* nameOf(ModuleKind kind)
{
    static const std::map<ModuleKind, const char*> kNames = {
        {ModuleKind::kFirmware, "firmware"},
        {ModuleKind::kProcess, "process"},
        {ModuleKind::kUnusable, "unusable"},
    };
    return kNames.at(kind);
}

const char* nameOf(Decision decision)
{
    static const std::map<Decision, const char*> kNames = {
        {Decision::kNeeded, "needed"},
        {Decision::kUpToDate, "up-to-date"},
        {Decision::kNothingOffered, "nothing-offered"},
        {Decision::kUnsound, "unsound"},
        {Decision::kByNameOnly, "by-name-only"},
        {Decision::kUnusable, "unusable"},
    };
    return kNames.at(decision);
}

const char* nameOf(Outcome outcome)
{
    static const std::map<Outcome, const char*> kNames = {
        {Outcome::kUpdated, "updated"},
        {Outcome::kNotNeeded, "not-needed"},
        {Outcome::kNothingOffered, "nothing-offered"},
        {Outcome::kFailed, "failed"},
        {Outcome::kTimedOut, "timed-out"},
        {Outcome::kNotBegun, "not-begun"},
        {Outcome::kByNameOnly, "by-name-only"},
        {Outcome::kUnusable, "unusable"},
    };
    return kNames.at(outcome);
}

JsonMembers membersOf(const ModuleEntry& entry)
{
    JsonMembers members = {{"name", entry.name},
                           {"kind", nameOf(entry.kind)},
                           {"running", known(entry.running)},
                           {"reason", known(entry.reason)}};
    if (entry.kind == ModuleKind::kFirmware) {
        members["firmware"] = entry.firmwareName;
        members["package"] = entry.package;
        members["downloaded"] = entry.hasPackage;
    }
    return members;
}

JsonMembers membersOf(const ModuleCheck& check)
{
    const bool isNeeded = check.decision == Decision::kNeeded;
    return {{"name", check.name},
            {"decision", nameOf(check.decision)},
            {"running", known(check.running)},
            {"offered", known(check.offered)},
            {"seconds", isNeeded ? check.seconds : Json::Value()},
            {"reason", known(check.reason)}};
}

JsonMembers membersOf(const ModuleUpdate& update)
{
    return {{"name", update.name},
            {"outcome", nameOf(update.outcome)},
            {"running", known(update.running)},
            {"reason", known(update.reason)}};
}

JsonMembers membersOf(const ModuleDownload& download)
{
    return {{"name", download.name},
            {"downloaded", download.downloaded},
            {"reason", known(download.reason)}};
}

JsonMembers membersOf(const SlotHolder& holder)
{
    return {{"process", holder.process != 0 ? holder.process : Json::Value()},
            {"command", known(holder.command)}};
}

template <typename Item>
Json::Value arrayOf(const std::vector<Item>& items)
{
    Json::Value array(Json::arrayValue);
    for (const Item& item : items) {
        array.append(jsonObject(membersOf(item)));
    }
    return array;
}

class ModuleJsonReport final : public ModuleReport
{
public:
    void modules(const std::vector<ModuleEntry>& entries) override
    {
        writeEvent("modules", {{"modules", arrayOf(entries)}});
    }

    void checked(const ModuleSource& source, const std::vector<ModuleCheck>& checks) override
    {
        writeEvent("modules-check", {{"source", source.name}, {"modules", arrayOf(checks)}});
    }

    void version(const ModuleEntry& entry) override
    {
        writeEvent("module-version", {{"name", entry.name}, {"version", entry.running}});
    }

    void progress(const std::string& name, unsigned int percent) override
    {
        writeEvent("module-progress", {{"name", name}, {"percent", percent}});
    }

    void waitingForOthers(const SlotHolders& holders) override
    {
        JsonMembers members = {{"holders", arrayOf(holders.alive)}};
        if (!holders.stopped.empty()) {
            members["stopped"] = arrayOf(holders.stopped);
        }
        if (holders.alive.empty() && holders.isComplete) {
            members["remedy"] = "quillonctl modules unlock";
        }
        writeEvent("modules-waiting", members);
    }

    void updating(const std::string& /*name*/) override {}
    void progressed(int /*percent*/, int /*secondsLeft*/) override {}
    void waitingForLate(const std::string& /*name*/) override {}

    void updated(const ModuleSource& source, const std::vector<ModuleUpdate>& updates,
                 ExitCode code) override
    {
        writeEvent("modules-update",
                   {{"source", source.name}, {"exitCode", code}, {"modules", arrayOf(updates)}});
    }

    void downloading(std::size_t /*packages*/) override {}

    void downloaded(const std::vector<ModuleDownload>& downloads, ExitCode code) override
    {
        writeEvent("modules-download", {{"exitCode", code}, {"modules", arrayOf(downloads)}});
    }

    void unlocked(bool released) override
    {
        writeEvent("modules-unlock", {{"released", released}});
    }

    void warning(const std::string& text) override
    {
        std::cerr << "quillonctl: warning: " << cut(printable(text), kLongestText) << std::endl;
    }

    void error(ExitCode code, const std::string& text) override
    {
        writeEvent("error", {{"exitCode", code}, {"text", known(text)}});
    }
};

}  // namespace

std::unique_ptr<ModuleReport> makeModuleJsonReport()
{
    return std::make_unique<ModuleJsonReport>();
}

}  // namespace quillon
