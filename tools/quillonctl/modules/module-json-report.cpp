#include "tools/quillonctl/modules/module-json-report.h"

#include <iostream>

#include "tools/quillonctl/json-line.h"
#include "tools/quillonctl/modules/outside-text.h"

namespace quillon {

namespace {

/// Whole, whatever a reasonable module or image says.
constexpr std::size_t kLongestText = 4096;

/// Leaves out what is not known.
void put(Json::Value& object, const char* member, const std::string& text)
{
    if (!text.empty()) {
        object[member] = cut(text, kLongestText);
    }
}

const char* nameOf(ModuleKind kind)
{
    switch (kind) {
        case ModuleKind::kFirmware:
            return "firmware";
        case ModuleKind::kProcess:
            return "process";
        default:
            return "unusable";
    }
}

const char* nameOf(Decision decision)
{
    switch (decision) {
        case Decision::kNeeded:
            return "needed";
        case Decision::kUpToDate:
            return "up-to-date";
        case Decision::kNothingOffered:
            return "nothing-offered";
        case Decision::kUnsound:
            return "unsound";
        case Decision::kByNameOnly:
            return "by-name-only";
        default:
            return "unusable";
    }
}

const char* nameOf(Outcome outcome)
{
    switch (outcome) {
        case Outcome::kUpdated:
            return "updated";
        case Outcome::kNotNeeded:
            return "not-needed";
        case Outcome::kNothingOffered:
            return "nothing-offered";
        case Outcome::kFailed:
            return "failed";
        case Outcome::kTimedOut:
            return "timed-out";
        case Outcome::kByNameOnly:
            return "by-name-only";
        case Outcome::kNotBegun:
            return "not-begun";
        default:
            return "unusable";
    }
}

Json::Value entryObject(const ModuleEntry& entry)
{
    Json::Value object(Json::objectValue);
    object["name"] = entry.name;
    object["kind"] = nameOf(entry.kind);
    put(object, "running", entry.running);
    if (entry.kind == ModuleKind::kFirmware) {
        object["firmware"] = entry.firmwareName;
        object["package"] = entry.package;
        object["downloaded"] = entry.hasPackage;
    }
    put(object, "reason", entry.reason);
    return object;
}

Json::Value checkObject(const ModuleCheck& check)
{
    Json::Value object(Json::objectValue);
    object["name"] = check.name;
    object["decision"] = nameOf(check.decision);
    put(object, "running", check.running);
    put(object, "offered", check.offered);
    if (check.decision == Decision::kNeeded) {
        object["seconds"] = check.seconds;
    }
    put(object, "reason", check.reason);
    return object;
}

Json::Value updateObject(const ModuleUpdate& update)
{
    Json::Value object(Json::objectValue);
    object["name"] = update.name;
    object["outcome"] = nameOf(update.outcome);
    put(object, "running", update.running);
    put(object, "reason", update.reason);
    return object;
}

Json::Value downloadObject(const ModuleDownload& download)
{
    Json::Value object(Json::objectValue);
    object["name"] = download.name;
    object["downloaded"] = download.downloaded;
    put(object, "reason", download.reason);
    return object;
}

template <typename Item>
Json::Value arrayOf(const std::vector<Item>& items, Json::Value (*toObject)(const Item&))
{
    Json::Value array(Json::arrayValue);
    for (const Item& item : items) {
        array.append(toObject(item));
    }
    return array;
}

Json::Value processes(const std::vector<SlotHolder>& holders)
{
    Json::Value array(Json::arrayValue);
    for (const SlotHolder& holder : holders) {
        Json::Value process(Json::objectValue);
        if (holder.process != 0) {
            process["process"] = holder.process;
        }
        put(process, "command", holder.command);
        array.append(process);
    }
    return array;
}

}  // namespace

void ModuleJsonReport::modules(const std::vector<ModuleEntry>& entries)
{
    Json::Value object = eventObject("modules");
    object["modules"] = arrayOf(entries, entryObject);
    writeJsonLine(object);
}

void ModuleJsonReport::checked(const ModuleSource& source, const std::vector<ModuleCheck>& checks)
{
    Json::Value object = eventObject("modules-check");
    object["source"] = source.name;
    object["modules"] = arrayOf(checks, checkObject);
    writeJsonLine(object);
}

void ModuleJsonReport::version(const ModuleEntry& entry)
{
    Json::Value object = eventObject("module-version");
    object["name"] = entry.name;
    object["version"] = entry.running;
    writeJsonLine(object);
}

void ModuleJsonReport::progress(const std::string& name, unsigned int percent)
{
    Json::Value object = eventObject("module-progress");
    object["name"] = name;
    object["percent"] = percent;
    writeJsonLine(object);
}

void ModuleJsonReport::waitingForOthers(const SlotHolders& holders)
{
    Json::Value object = eventObject("modules-waiting");
    object["holders"] = processes(holders.alive);
    if (!holders.stopped.empty()) {
        object["stopped"] = processes(holders.stopped);
    }
    if (holders.alive.empty() && holders.isComplete) {
        object["remedy"] = "quillonctl modules unlock";
    }
    writeJsonLine(object);
}

void ModuleJsonReport::updated(const ModuleSource& source, const std::vector<ModuleUpdate>& updates,
                               ExitCode code)
{
    Json::Value object = eventObject("modules-update");
    object["source"] = source.name;
    object["exitCode"] = code;
    object["modules"] = arrayOf(updates, updateObject);
    writeJsonLine(object);
}

void ModuleJsonReport::downloaded(const std::vector<ModuleDownload>& downloads, ExitCode code)
{
    Json::Value object = eventObject("modules-download");
    object["exitCode"] = code;
    object["modules"] = arrayOf(downloads, downloadObject);
    writeJsonLine(object);
}

void ModuleJsonReport::unlocked(bool released)
{
    Json::Value object = eventObject("modules-unlock");
    object["released"] = released;
    writeJsonLine(object);
}

void ModuleJsonReport::warning(const std::string& text)
{
    std::cerr << "quillonctl: warning: " << cut(printable(text), kLongestText) << std::endl;
}

void ModuleJsonReport::error(ExitCode code, const std::string& text)
{
    Json::Value object = eventObject("error");
    object["exitCode"] = code;
    put(object, "text", text);
    writeJsonLine(object);
}

}  // namespace quillon
