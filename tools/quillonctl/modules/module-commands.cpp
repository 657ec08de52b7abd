#include "tools/quillonctl/modules/module-commands.h"

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "tools/quillonctl/modules/foreign-end.h"
#include "tools/quillonctl/modules/interruption.h"
#include "tools/quillonctl/modules/module-verbs.h"
#include "tools/quillonctl/progress-display.h"
#include "tools/quillonctl/standard-files.h"

namespace quillon {

namespace {

constexpr const char* kFooter =
    "The modules are worked on by this program itself, with the update service running or not.\n"
    "\n"
    "Sources: usb (a stick), package (default), system (the read-only firmware area),\n"
    "shared (the writable shared area)";

std::string checkSource(const std::string& name)
{
    return findModuleSource(name) != nullptr
               ? std::string()
               : "takes usb, package, system or shared, not \"" + name + "\"";
}

void takeSource(CLI::App* verb, std::string& source)
{
    verb->add_option("--source", source, "Where to look for images")
        ->check(checkSource)
        ->option_text("SOURCE");
}

CLI::Option* takeName(CLI::App* verb, std::string& name)
{
    return verb->add_option("NAME", name, "The module's library name")->option_text(" ");
}

[[noreturn]] void endWithoutTearingDown(int code)
{
    const int reported = closeOutput(code);
    endIsOurs(reported);
    static_cast<void>(std::fflush(nullptr));
    endAtOnce(reported);
}

}  // namespace

ModuleCommands::ModuleCommands(CLI::App& app)
    : modules_(app.add_subcommand("modules", "Look at the firmware modules and update them"))
{
    modules_->require_subcommand(1)->footer(kFooter);
    modules_->add_subcommand("list", "List the modules, unusable ones with the reason");
    takeSource(modules_->add_subcommand("check", "Say which modules need an update"), source_);
    CLI::App* update = modules_->add_subcommand("update", "Update a module, or all that need it");
    takeSource(update, source_);
    CLI::Option* name = takeName(update, name_);
    update->add_flag("--all", all_, "Update every module that needs it")->excludes(name);
    update->callback([this] {
        if (name_.empty() && !all_) {
            throw CLI::RequiredError("update: a module's name or --all");
        }
    });
    takeName(modules_->add_subcommand("version", "Say which version a module is running"), name_)
        ->required();
    takeName(modules_->add_subcommand("progress", "Say how far a module's update is"), name_)
        ->required();
    modules_->add_subcommand("download", "Download every module's package");
    modules_->add_subcommand("unlock",
                             "Release the update semaphore that a dead program has left behind");
}

int ModuleCommands::run(bool json, bool quiet) const
{
    const std::unique_ptr<ModuleReport> report =
        json ? makeModuleJsonReport() : makeModuleTextReport(quiet, canRedraw());
    ModuleVerbs verbs(*report, std::chrono::milliseconds(250));
    const ModuleSource& source = *findModuleSource(source_);
    const std::string verb = modules_->get_subcommands().front()->get_name();
    ExitCode code = kExitSuccess;
    try {
        if (verb == "list") {
            code = verbs.list();
        } else if (verb == "check") {
            code = verbs.check(source);
        } else if (verb == "update") {
            code = all_ ? verbs.updateAll(source) : verbs.update(name_, source);
        } else if (verb == "version") {
            code = verbs.version(name_);
        } else if (verb == "progress") {
            code = verbs.progress(name_);
        } else if (verb == "unlock") {
            code = verbs.unlock();
        } else {
            code = verbs.download();
        }
    } catch (const Failure& failure) {
        takeOverTheEnd();
        report->error(failure.code, failure.text);
        code = failure.code;
    }
    takeOverTheEnd();
    if (verbs.hasLateUpdate()) {
        endWithoutTearingDown(code);
    }
    return code;
}

}  // namespace quillon
