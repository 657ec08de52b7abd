#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "tools/quillonctl/doctor/doctor.h"
#include "tools/quillonctl/history.h"
#include "tools/quillonctl/modules/foreign-end.h"
#include "tools/quillonctl/modules/interruption.h"
#include "tools/quillonctl/modules/module-probe.h"
#include "tools/quillonctl/modules/module-verbs.h"
#include "tools/quillonctl/modules/update-slot.h"
#include "tools/quillonctl/output.h"
#include "tools/quillonctl/progress-display.h"
#include "tools/quillonctl/verbs.h"
#include "tools/shared/standard-files.h"
#include "tools/shared/usage-mistake.h"

namespace {

using namespace quillon;

constexpr double kShortestTimeout = 0.001;
constexpr double kLongestTimeout = 86400;

constexpr const char* kFooter =
    "Options may stand before or after the verb.\n"
    "\n"
    "Exit codes: 0 success, 2 usage, 3 service not running, 4 no reply in time,\n"
    "5 another client is busy, 6 update failed, 7 nothing to update, 8 already\n"
    "updating, 9 connection lost or other system error, 10 unknown module,\n"
    "11 unusable module, 12 a module does not answer, 13 update timed out,\n"
    "14 download failed, 20 doctor found warnings, 21 doctor found errors,\n"
    "130 interrupted";

constexpr const char* kModulesFooter =
    "The modules are worked on by this program itself, with the update service running or not.\n"
    "\n"
    "Sources: usb (a stick), package (default), system (the read-only firmware area),\n"
    "shared (the writable shared area)";

struct Arguments
{
    bool json = false;
    bool quiet = false;
    double timeout = 0;  ///< seconds; 0: the client's own
    std::string directory;
    std::string module;
    std::string source = "package";  ///< of modules
    bool all = false;                ///< modules
    bool follow = false;             ///< the progress, to its end
    HistoryRequest history;
};

ClientOptions clientOptions(const Arguments& arguments)
{
    ClientOptions options;
    if (arguments.timeout > 0) {
        const std::chrono::milliseconds timeout(static_cast<long>(arguments.timeout * 1000));
        options.estimateTimeout = timeout;
        options.startTimeout = timeout;
        options.replyTimeout = timeout;
    }
    return options;
}

/// @return what is wrong with it; empty when nothing is
std::string checkTimeout(const std::string& text)
{
    char* end = nullptr;
    const double seconds = std::strtod(text.c_str(), &end);
    // Put so that not-a-number fails as well.
    const bool good = *end == '\0' && seconds >= kShortestTimeout && seconds <= kLongestTimeout;
    return good ? std::string() : "takes seconds, from 0.001 to 86400, not \"" + text + "\"";
}

void addOptions(CLI::App& app, Arguments& arguments)
{
    app.set_version_flag("--version", "quillonctl " QUILLON_VERSION, "Print the version and exit");
    auto* json = app.add_flag("--json", arguments.json, "Write one JSON object per line");
    app.add_flag("--quiet", arguments.quiet, "Say nothing but errors")->excludes(json);
    app.add_option("--timeout", arguments.timeout,
                   "Wait at most this long for each reply (default: 600 for the estimate and the "
                   "start, otherwise 5; with modules 600 for a check, otherwise 10)")
        ->check(checkTimeout)
        ->option_text("SECONDS");
}

std::string checkSource(const std::string& name)
{
    return findModuleSource(name) != nullptr
               ? std::string()
               : "takes usb, package, system or shared, not \"" + name + "\"";
}

void takeDirectory(CLI::App* verb, Arguments& arguments)
{
    verb->add_option("DIR", arguments.directory, "Directory of the stick with the images")
        ->required()
        ->option_text(" ");
}

void takeSource(CLI::App* verb, Arguments& arguments)
{
    verb->add_option("--source", arguments.source, "Where to look for images")
        ->check(checkSource)
        ->option_text("SOURCE");
}

CLI::Option* takeModule(CLI::App* verb, Arguments& arguments)
{
    return verb->add_option("NAME", arguments.module, "The module's library name")
        ->option_text(" ");
}

void addServiceVerbs(CLI::App& app, Arguments& arguments)
{
    takeDirectory(app.add_subcommand("update", "Update from the images in a directory"), arguments);
    takeDirectory(app.add_subcommand("check", "Say which modules need an update, and why not"),
                  arguments);
    takeDirectory(app.add_subcommand("estimate", "The same as check"), arguments);
    app.add_subcommand("progress", "Say how far the running update is")
        ->add_flag("--follow", arguments.follow, "Follow it to its end, beside other clients");
    app.add_subcommand("stop", "Make the service take no more commands");
    app.add_subcommand("doctor", "Say what would go wrong, and what to do about it");
}

std::string checkSince(const std::string& text)
{
    return momentOf(text, 0)
               ? std::string()
               : "takes a date like 2026-11-23, with a time like \"2026-11-23 04:10\", "
                 "or 30d or 12h, not \"" +
                     text + "\"";
}

void addHistoryVerb(CLI::App& app, HistoryRequest& request)
{
    CLI::App* verb = app.add_subcommand("history", "List the updates that the service has kept");
    verb->add_option("--since", request.since, "List what began then or later")
        ->check(checkSince)
        ->option_text("WHEN");
    verb->add_option("--plot", request.plot, "Draw expected beside actual times, as SVG")
        ->option_text("FILE");
}

void addModuleVerbs(CLI::App& modules, Arguments& arguments)
{
    modules.require_subcommand(1);
    modules.footer(kModulesFooter);
    modules.add_subcommand("list", "List the modules, unusable ones with the reason");
    takeSource(modules.add_subcommand("check", "Say which modules need an update"), arguments);
    CLI::App* update = modules.add_subcommand("update", "Update a module, or all that need it");
    takeSource(update, arguments);
    CLI::Option* name = takeModule(update, arguments);
    update->add_flag("--all", arguments.all, "Update every module that needs it")->excludes(name);
    update->callback([&arguments] {
        if (arguments.module.empty() && !arguments.all) {
            throw CLI::RequiredError("update: a module's name or --all");
        }
    });
    CLI::App* version = modules.add_subcommand("version", "Say which version a module is running");
    takeModule(version, arguments)->required();
    CLI::App* progress = modules.add_subcommand("progress", "Say how far a module's update is");
    takeModule(progress, arguments)->required();
    modules.add_subcommand("download", "Download every module's package");
    modules.add_subcommand("unlock",
                           "Release the update semaphore that a dead program has left behind");
}

ModuleTimes moduleTimes(const Arguments& arguments)
{
    ModuleTimes times;
    if (arguments.timeout > 0) {
        times.query = std::chrono::milliseconds(static_cast<long>(arguments.timeout * 1000));
        times.check = times.query;
    }
    return times;
}

/// A module that a control layer is flashing is asked nothing.
ModuleAnswers askUnlessUpdating(const ModuleTimes& times)
{
    std::string trouble;
    const std::string who = UpdateSlot::updater(trouble);
    if (!who.empty()) {
        throw Failure{kExitAlreadyUpdating, "another control layer is updating: " + who};
    }
    return askModules(times);
}

ExitCode askService(const std::string& verb, const Arguments& arguments, Output& output)
{
    Client client(clientOptions(arguments));
    Verbs verbs(client, output, [&] { return askUnlessUpdating(moduleTimes(arguments)); });
    const std::chrono::milliseconds pollInterval(canRedraw() ? 250 : 1000);
    if (verb == "update") {
        return verbs.update(arguments.directory, pollInterval);
    }
    if (arguments.follow) {
        return verbs.progressToTheEnd(pollInterval, UpdateSlot::updater);
    }
    if (verb == "check" || verb == "estimate") {
        return verbs.check(arguments.directory);
    }
    return verb == "stop" ? verbs.stop() : verbs.progress();
}

ExitCode runServiceVerb(const std::string& verb, const Arguments& arguments)
{
    Output output(arguments.json, arguments.quiet, canRedraw());
    ExitCode code = kExitSuccess;
    try {
        if (verb == "history") {
            return showHistory(output, arguments.history);
        }
        output.holdBack();  // others wait for the client's lock
        code = askService(verb, arguments, output);
    } catch (const Failure& failure) {
        output.error(failure.code, failure.text);
        code = failure.code;
    }
    output.letGo();
    return code;
}

[[noreturn]] void endWithoutTearingDown(int code)
{
    const int reported = closeOutput("quillonctl", code, kExitSystem);
    endIsOurs(reported);
    static_cast<void>(std::fflush(nullptr));
    endAtOnce(reported);
}

/// Ends the process by itself when a plug-in is still at an update that has been given up.
ExitCode runModuleVerb(const std::string& verb, const Arguments& arguments)
{
    const bool redraw = canRedraw();
    Output output(arguments.json, arguments.quiet, redraw);
    ModuleReport report(output, !redraw);
    ModuleVerbs verbs(report, std::chrono::milliseconds(250), moduleTimes(arguments));
    const ModuleSource& source = *findModuleSource(arguments.source);
    const std::string& name = arguments.module;
    const std::map<std::string, std::function<ExitCode()>> run = {
        {"list", [&] { return verbs.list(); }},
        {"check", [&] { return verbs.check(source); }},
        {"update",
         [&] { return arguments.all ? verbs.updateAll(source) : verbs.update(name, source); }},
        {"version", [&] { return verbs.version(name); }},
        {"progress", [&] { return verbs.progress(name); }},
        {"unlock", [&] { return verbs.unlock(); }},
        {"download", [&] { return verbs.download(); }},
    };
    ExitCode code = kExitSuccess;
    try {
        code = run.at(verb)();
    } catch (const Failure& failure) {
        takeOverTheEnd();
        report.error(failure.code, failure.text);
        code = failure.code;
    }
    takeOverTheEnd();
    if (verbs.hasLateUpdate()) {
        endWithoutTearingDown(code);
    }
    return code;
}

int runCommandLine(int argc, char** argv)
{
    Arguments arguments;
    CLI::App app("Drives the firmware-update service, and is a control layer beside it.",
                 "quillonctl");
    app.fallthrough();  // of all verbs: options may stand behind them
    app.footer(kFooter);
    app.require_subcommand(1);
    addOptions(app, arguments);
    addServiceVerbs(app, arguments);
    addHistoryVerb(app, arguments.history);
    CLI::App& modules =
        *app.add_subcommand("modules", "Look at the firmware modules and update them");
    addModuleVerbs(modules, arguments);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {
            return app.exit(error);  // --help and --version
        }
        const bool json = std::count(argv, argv + argc, std::string_view("--json")) > 0;
        Output(json, false, false).error(kExitUsage, describeMistake(app, error));
        return kExitUsage;
    }
    if (modules.parsed()) {
        return runModuleVerb(modules.get_subcommands().front()->get_name(), arguments);
    }
    if (app.got_subcommand("doctor")) {
        Output output(arguments.json, arguments.quiet, canRedraw());
        return doctor::run(output);
    }
    return runServiceVerb(app.get_subcommands().front()->get_name(), arguments);
}

}  // namespace

int main(int argc, char** argv)
{
    prepareStandardFiles();
    const int code = closeOutput("quillonctl", runCommandLine(argc, argv), kExitSystem);
    endIsOurs(code);
    return code;
}
