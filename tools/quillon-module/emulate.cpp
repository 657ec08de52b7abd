#include "tools/quillon-module/emulate.h"

#include <json/json.h>

#include <filesystem>
#include <iostream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <utility>

#include "base/alphanumeric.h"
#include "base/regular-file.h"
#include "tools/quillon-module/clause.h"
#include "tools/quillon-module/exit-codes.h"
#include "tools/quillon-module/kit-files.h"
#include "tools/shared/outside-text.h"

namespace quillon::kit {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kLargestRecord = 16U << 20U;
constexpr std::size_t kMostModules = 1000;
constexpr std::size_t kLongestName = 200;
constexpr std::size_t kLongestLine = 1000;
constexpr double kLongestSeconds = 1000000;
constexpr int kDigits = 15;  // one more shows how a number is stored, not what it is
constexpr const char* kHowToRecord =
    "; record a run with: quillonctl --json modules list >FILE; quillonctl --json update DIR "
    ">>FILE";

/// How a module has behaved, as far as a record tells.
struct Behaviour
{
    Json::Value settings{Json::objectValue};  ///< of the emulated module
    std::string offered;
    std::string decision;  ///< why it needed no update; empty or "needed" otherwise
    bool hasEnd = false;   ///< an update of it is recorded
    std::string leftOut;   ///< why it is not emulated; empty when it is
    std::string note;      ///< what else the record says, or what it does otherwise; may be empty
};

/// @return empty where there is none
std::string textOf(const Json::Value& object, const char* member)
{
    return object.get(member, "").asString();
}

/// Raises a Failure, whose text says more than an exception of the JSON library.
[[noreturn]] void refuse(const std::string& text)
{
    throw Failure(kExitFile, text);
}

/// What may be a part of a path, and of a line.
std::string requiredName(const std::string& name, const char* what)
{
    const bool isName = !name.empty() && name.size() <= kLongestName && name[0] != '.' &&
                        name.find('/') == std::string::npos && name == printable(name);
    if (!isName) {
        refuse("\"" + cut(printable(name), kLongestName) + "\" is no " + what);
    }
    return name;
}

void takeText(Behaviour& behaviour, const char* setting, const std::string& text)
{
    if (!text.empty()) {
        behaviour.settings[setting] = text;
    }
}

/// What is offered to it, and how long it expects that to take.
void takeOffer(Behaviour& behaviour, const Json::Value& module, const char* expected)
{
    if (const std::string offered = textOf(module, "offered"); !offered.empty()) {
        behaviour.offered = offered;
    }
    if (const int seconds = module[expected].asInt(); seconds != 0) {
        behaviour.settings["expectedTime"] = seconds;
    }
}

void takeListed(Behaviour& behaviour, const Json::Value& module)
{
    if (module["kind"] == "unusable") {
        behaviour.leftOut = "it was unusable: " + textOf(module, "reason");
    }
    if (module.isMember("package")) {
        behaviour.settings["identifier"] = requiredName(textOf(module, "package"), "identifier");
    }
}

/// It was asked whether it needs an update, by the service or, with "decision", by a control layer.
void takeLook(Behaviour& behaviour, const Json::Value& module)
{
    const bool isOfLayer = module.isMember("decision");
    takeOffer(behaviour, module, isOfLayer ? "seconds" : "expectedSeconds");
    behaviour.decision = textOf(module, isOfLayer ? "decision" : "reason");
    behaviour.note = textOf(module, isOfLayer ? "reason" : "text");
}

/// An update has ended, or has not, in the words of the history.
void takeEnd(Behaviour& behaviour, const Json::Value& module, const std::string& outcome)
{
    Json::Value& settings = behaviour.settings;
    for (const char* setting : {"seconds", "result", "hangAtByte", "crashAtByte"}) {
        settings.removeMember(setting);
    }
    if (module.isMember("after")) {
        settings.removeMember("claims");
    }
    behaviour.hasEnd = true;
    behaviour.decision.clear();
    behaviour.note.clear();
    takeText(behaviour, "version", textOf(module, "before"));
    takeOffer(behaviour, module, "expectedSeconds");
    const std::string reason = textOf(module, "reason");
    if (outcome == "timed-out") {
        settings["hangAtByte"] = 0;
        behaviour.note = "it had not ended in its time, or had to wait for another: it hangs";
    } else if (outcome == "cut-off") {  // or an exception has ended the run
        settings["crashAtByte"] = 0;
        behaviour.note = "it was cut off by the module, by power or by somebody: it crashes";
    } else if (!module.isMember("result")) {
        behaviour.note = "how its update ended is not recorded: it succeeds";
    } else if (module["result"] == 0 || reason == "update-failed" || reason == "exception") {
        const double seconds = module["seconds"].asDouble();
        if (!(seconds >= 0 && seconds <= kLongestSeconds)) {
            refuse("the seconds of an update are from 0 to 1000000");
        }
        settings["seconds"] = seconds;
        settings["result"] = module["result"].asInt();
        behaviour.note = reason == "exception" ? "an exception was raised: it fails instead" : "";
        const std::string after = textOf(module, "after");
        if (textOf(module, "problem") == "unchanged") {
            settings["claims"] = after;
        } else if (!after.empty() && after != behaviour.offered && reason.empty()) {
            behaviour.note = "it ran " + after + " afterwards: it runs what is offered";
        }
    } else {
        behaviour.note = textOf(module, "text");  // of its image, for the most part
    }
}

using Modules = std::map<std::string, Behaviour>;

Behaviour& at(Modules& modules, const Json::Value& name)
{
    if (modules.size() > kMostModules) {
        refuse("more than 1000 modules");
    }
    return modules[requiredName(name.asString(), "name of a module")];
}

/// @param event  a line of quillonctl. Throws Failure, or Json::Exception for what is none.
void take(Modules& modules, const Json::Value& event)
{
    const std::string kind = textOf(event, "event");
    if (kind == "past-update" && event.isMember("module")) {
        takeEnd(at(modules, event["module"]), event, textOf(event, "outcome"));
    }
    if (kind != "modules" && kind != "modules-check" && kind != "looked" && kind != "updated") {
        return;
    }
    for (const Json::Value& module : event["modules"]) {
        Behaviour& behaviour = at(modules, module["name"]);
        if (!behaviour.settings.isMember("version")) {
            takeText(behaviour, "version", textOf(module, "running"));
        }
        if (kind == "modules") {
            takeListed(behaviour, module);
        } else if (kind == "updated") {
            const char* unended = module["late"].asBool() ? "timed-out" : "cut-off";
            takeEnd(behaviour, module, module.isMember("result") ? "" : unended);
        } else if (!behaviour.hasEnd) {
            takeLook(behaviour, module);
        }
    }
}

/// Once all is known: whether it can be emulated, and what it answers if it was never updated.
void finish(const std::string& name, Behaviour& behaviour)
{
    Json::Value& settings = behaviour.settings;
    Subject subject;
    subject.file = name + ".so";
    if (subject.isProcess()) {
        behaviour.leftOut = "it is a process module";
    }
    const bool isOwnIdentifier = isAlphanumeric(name) && name.find("emp") == std::string::npos;
    if (behaviour.leftOut.empty() && !settings.isMember("identifier") && !isOwnIdentifier) {
        refuse("the identifier of " + name + " is not recorded, and cannot be \"" + name +
               "emp\"; add the output of: quillonctl --json modules list");
    }
    const bool isSame = settings.get("version", "") == behaviour.offered;
    if (behaviour.hasEnd && isSame) {
        settings.removeMember("version");  // it was asked afterwards
    }
    if (behaviour.decision == "check-failed") {
        settings["need"] = -1;
    } else if (behaviour.decision == "up-to-date" && !isSame) {
        settings["need"] = 0;
    }
}

Modules modulesIn(const std::string& path)
{
    const std::optional<std::string> text = readRegularFile(path, kLargestRecord);
    if (!text) {
        refuse(path + " cannot be read, or is no file of at most 16 MiB");
    }
    Modules modules;
    std::istringstream lines(*text);
    int number = 0;
    for (std::string line; std::getline(lines, line);) {
        const std::string place = path + ", line " + std::to_string(++number) + ": ";
        try {
            Json::Value event;
            std::istringstream(line) >> event;
            take(modules, event);
        } catch (const Failure& failure) {
            refuse(place + failure.what() + kHowToRecord);
        } catch (const Json::Exception&) {
            refuse(place + "not a whole line of quillonctl --json" + kHowToRecord);
        }
    }
    if (modules.empty()) {
        refuse(path + " tells of no module" + kHowToRecord);
    }
    for (auto& [name, behaviour] : modules) {
        finish(name, behaviour);
    }
    return modules;
}

/// What the emulated module does where the record tells nothing.
Json::Value defaultsOf(const std::string& name, const Json::Value& settings)
{
    Json::Value defaults(Json::objectValue);
    defaults["identifier"] = name + "emp";
    defaults["version"] = "1.0";
    defaults["expectedTime"] = 5;
    defaults["speed"] = 1048576;
    for (const std::string& known : settings.getMemberNames()) {
        defaults.removeMember(known == "seconds" ? "speed" : known);
    }
    defaults["progress"] = "even";
    if (settings.get("result", 0) != 0) {
        defaults["errno"] = "EIO";
    }
    return defaults;
}

/// On one line.
std::string jsonOf(const Json::Value& value)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["precision"] = kDigits;
    return Json::writeString(builder, value);
}

Json::Value documentOf(const std::string& name, const Behaviour& behaviour)
{
    Json::Value module;
    module["name"] = name;
    if (!behaviour.leftOut.empty()) {
        module["leftOut"] = printable(behaviour.leftOut);
        return module;
    }
    module["settings"] = behaviour.settings;
    module["defaults"] = defaultsOf(name, behaviour.settings);
    if (!behaviour.offered.empty()) {
        module["offered"] = printable(behaviour.offered);
    }
    if (!behaviour.note.empty()) {
        module["note"] = printable(behaviour.note);
    }
    return module;
}

void sayForPeople(const Json::Value& module)
{
    std::cout << "  " << module["name"].asString() << '\n';
    for (const auto& [member, words] : {std::pair{"leftOut", "left out"},
                                        {"settings", "recorded"},
                                        {"defaults", "not recorded"},
                                        {"offered", "was offered"},
                                        {"note", "note"}}) {
        if (module.isMember(member)) {
            const Json::Value& value = module[member];
            const std::string text = value.isString() ? value.asString() : jsonOf(value);
            std::cout << "      " << words << ": " << cut(printable(text), kLongestLine) << '\n';
        }
    }
}

}  // namespace

void emulate(const EmulateRequest& request)
{
    const Modules modules = modulesIn(request.record);
    Json::Value document;
    document["directory"] = printable(request.directory);
    document["modules"] = Json::Value(Json::arrayValue);
    try {
        const NewDirectory directory(request.directory);
        const fs::path emulated = installedFile("the emulated module", EMULATED_MODULE);
        for (const auto& [name, behaviour] : modules) {
            document["modules"].append(documentOf(name, behaviour));
            if (behaviour.leftOut.empty()) {
                const std::string path = directory.path() + "/" + name;
                fs::copy_file(emulated, path + ".so");
                writeFile(path + ".json", jsonOf(behaviour.settings) + "\n");
            }
        }
        directory.moveInPlace();
    } catch (const fs::filesystem_error& error) {
        throw Failure(kExitFile, error.what());
    }
    if (request.json) {
        std::cout << document << std::endl;
        return;
    }
    std::cout << "made " << printable(request.directory)
              << ": copy its files to /usr/fwupdate/controls/ of a device without these modules\n";
    for (const Json::Value& module : document["modules"]) {
        sayForPeople(module);
    }
}

}  // namespace quillon::kit
