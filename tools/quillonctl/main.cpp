#include <CLI/CLI.hpp>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>

#include "tools/quillonctl/modules/foreign-end.h"
#include "tools/quillonctl/modules/module-commands.h"
#include "tools/quillonctl/progress-display.h"
#include "tools/quillonctl/standard-files.h"
#include "tools/quillonctl/verbs.h"

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
    "14 download failed, 130 interrupted";

struct Arguments
{
    bool json = false;
    bool quiet = false;
    double timeout = 0;  ///< seconds; 0: the client's own
    std::string directory;
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
                   "start, otherwise 5)")
        ->check(checkTimeout)
        ->option_text("SECONDS");
}

void takeDirectory(CLI::App* verb, Arguments& arguments)
{
    verb->add_option("DIR", arguments.directory, "Directory of the stick with the images")
        ->required()
        ->option_text(" ");
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
    CLI::App* update = app.add_subcommand("update", "Update from the images in a directory");
    CLI::App* estimate = app.add_subcommand("estimate", "Say how long an update would take");
    app.add_subcommand("progress", "Say how far the running update is");
    CLI::App* stop = app.add_subcommand("stop", "Make the service take no more commands");
    takeDirectory(update, arguments);
    takeDirectory(estimate, arguments);
    const ModuleCommands modules(app);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {
            return app.exit(error);  // --help and --version
        }
        std::cerr << "quillonctl: " << error.what() << " (see quillonctl --help)" << std::endl;
        return kExitUsage;
    }

    if (modules.parsed()) {
        return modules.run(arguments.json, arguments.quiet);
    }
    const bool redraw = canRedraw();
    const std::unique_ptr<Report> report =
        arguments.json ? makeJsonReport() : makeTextReport(arguments.quiet, redraw);
    Client client(clientOptions(arguments));
    Verbs verbs(client, *report);
    try {
        if (update->parsed()) {
            return verbs.update(arguments.directory,
                                std::chrono::milliseconds(redraw ? 250 : 1000));
        }
        if (estimate->parsed()) {
            return verbs.estimate(arguments.directory);
        }
        return stop->parsed() ? verbs.stop() : verbs.progress();
    } catch (const Failure& failure) {
        report->error(failure.code, failure.text);
        return failure.code;
    }
}

}  // namespace

int main(int argc, char** argv)
{
    prepareStandardFiles();
    const int code = closeOutput(runCommandLine(argc, argv));
    endIsOurs(code);
    return code;
}
