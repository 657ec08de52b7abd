#include <CLI/CLI.hpp>
#include <cstring>
#include <exception>
#include <iostream>
#include <string>

#include "tools/quillon-module/check.h"
#include "tools/quillon-module/clause-process.h"
#include "tools/quillon-module/emulate.h"
#include "tools/quillon-module/new-project.h"
#include "tools/shared/standard-files.h"
#include "tools/shared/usage-mistake.h"

namespace {

using namespace quillon;
using namespace quillon::kit;

constexpr const char* kProgram = "quillon-module";
constexpr double kLongestTimeout = 86400;
constexpr int kLastLevel = 5;

constexpr const char* kFooter =
    "Exit codes: 0 done, no clause is broken; 2 wrong command line or name; 3 a file\n"
    "cannot be read or written, or is no record; 4 a clause is broken";

constexpr const char* kCheckFooter =
    "Each clause is judged in a process of its own. With --image the firmware is installed\n"
    "many times, each time as a newer version: run it in quillon-device, or on a device\n"
    "that may be updated.\n"
    "\n"
    "Levels: 1 what the service needs, 2 how an update is found, 3 an update, 4 what harms\n"
    "the service or another module one day, 5 what a maker should want.";

constexpr const char* kEmulateFooter =
    "Record a run where the modules are, replay it with the same stick where they are not:\n"
    "    quillonctl --json modules list >run.jsonl\n"
    "    quillonctl --json update DIR >>run.jsonl\n"
    "    quillon-module emulate run.jsonl replay\n"
    "The output of quillonctl --json history is a record as well. What a record does not tell\n"
    "is left at a default, which is named.";

CLI::App* addEmulate(CLI::App& app, EmulateRequest& request)
{
    CLI::App* verb = app.add_subcommand("emulate", "Make modules that behave as in a recorded run");
    verb->footer(kEmulateFooter);
    verb->add_option("RECORD", request.record, "What quillonctl --json has written")
        ->required()
        ->option_text(" ");
    verb->add_option("DIRECTORY", request.directory, "Where the modules are put; must not exist")
        ->required()
        ->option_text(" ");
    verb->add_flag("--json", request.json, "Write one JSON document");
    return verb;
}

void addCheck(CLI::App& app, CheckRequest& request, bool& lists)
{
    CLI::App* verb = app.add_subcommand("check", "Hold modules to what the service expects");
    verb->footer(kCheckFooter);
    verb->add_option("FILE", request.files, "The modules")->option_text(" ");
    verb->add_option("--info", request.info, "The module's information file")->option_text("FILE");
    verb->add_option("--image", request.image, "A firmware that may be installed")
        ->option_text("FILE");
    verb->add_option("--level", request.level, "Judge the clauses up to this level, 1 to 5")
        ->check(CLI::Range(1, kLastLevel))
        ->option_text("N");
    verb->add_option("--filter", request.filter, "Judge the clauses whose names are like this")
        ->option_text("PATTERN");
    verb->add_option("--timeout", request.seconds, "How long an answer may take (default: 10)")
        ->check(CLI::Range(0.001, kLongestTimeout))
        ->option_text("SECONDS");
    verb->add_option("--log", request.log, "Write everything to a file for the module's vendor")
        ->option_text("FILE");
    verb->add_flag("--only-failed", request.onlyFailed, "Show the broken clauses alone");
    verb->add_flag("--in-process", request.inProcess,
                   "Judge in this process, for a debugger: no deadline, and a crash is a crash");
    verb->add_flag("--confined", request.confined,
                   "Judge under the confinement of quillon.service, as root where systemd runs");
    verb->add_flag("--list", lists, "List the clauses and judge nothing");
    verb->add_flag("--json", request.json, "Write one JSON document");
}

int run(int argc, char** argv)
{
    CheckRequest request;
    EmulateRequest replayed;
    bool lists = false;
    std::string name;
    CLI::App app("Makes firmware modules, and checks them.", kProgram);
    app.set_version_flag("--version", "quillon-module " QUILLON_VERSION,
                         "Print the version and exit");
    app.require_subcommand(1);
    app.footer(kFooter);
    CLI::App* make = app.add_subcommand("new", "Make a module project in the directory NAME");
    make->add_option("NAME", name, "The module's name")->required()->option_text(" ");
    addCheck(app, request, lists);
    const CLI::App* replay = addEmulate(app, replayed);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {
            return app.exit(error);  // --help and --version
        }
        throw Failure(kExitUsage, describeMistake(app, error));
    }
    if (make->parsed()) {
        makeProject(name);
        std::cout << "made " << name << ": build it with\n    cd " << name
                  << " && cmake -B build && cmake --build build && ctest --test-dir build\n";
        return kExitSuccess;
    }
    if (replay->parsed()) {
        emulate(replayed);
        return kExitSuccess;
    }
    return lists ? listClauses(request) : check(request);
}

int runSaying(int argc, char** argv)
{
    try {
        return run(argc, argv);
    } catch (const Failure& failure) {
        std::cerr << kProgram << ": " << failure.what() << std::endl;
        return failure.code();
    } catch (const std::exception& error) {
        std::cerr << kProgram << ": " << error.what() << std::endl;
        return kExitFile;
    }
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc > 1 && std::strcmp(argv[1], kProcessWord) == 0) {
        return mainOfProcess(argc - 1, argv + 1);
    }
    prepareStandardFiles();
    return closeOutput(kProgram, runSaying(argc, argv), kExitFile);
}
