#include <fcntl.h>
#include <getopt.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <optional>
#include <string>

#include "tools/quillon-device/in-place.h"
#include "tools/quillon-device/init.h"
#include "tools/quillon-device/isolation.h"
#include "tools/quillon-device/setup-error.h"

using namespace quillon::device;

namespace {

constexpr const char* kUsage =
    "Usage: quillon-device run [OPTION]... [--] COMMAND [ARGUMENT]...\n"
    "       quillon-device shell [OPTION]...\n"
    "       quillon-device info\n"
    "\n"
    "Runs a command in a private virtual device with its own mounts, message queues,\n"
    "semaphores and processes. The directories of the update service exist at their real\n"
    "paths and are empty. Nothing that the command writes there reaches this machine.\n"
    "\n"
    "  run      run COMMAND in a new device\n"
    "  shell    run $SHELL in a new device\n"
    "  info     print which ways of isolation this machine allows, and why\n"
    "\n"
    "Options:\n"
    "      --isolation WAY  auto (the default), root, user or in-place\n"
    "      --in-place       the same as --isolation in-place: use this machine's own\n"
    "                       paths, one device at a time, and empty them afterwards\n"
    "      --no-aslr        disable address space layout randomisation for the command\n"
    "  -h, --help           print this help\n"
    "  -V, --version        print the version\n"
    "\n"
    "Environment:\n"
    "  QUILLON_DEVICE_IN_PLACE=1  allow \"auto\" to run in place if no other way is possible;\n"
    "                             not needed in a disposable container\n"
    "  QUILLON_DEVICE_NO_ASLR=1   the same as --no-aslr\n"
    "  QUILLON_DEVICE             set for the command: root, user or in-place\n"
    "\n"
    "Exit status: that of the command, 128+N if signal N killed it, 125 if no device could\n"
    "be created, for wrong usage, or if quillon-device cannot write its own output, 126 if\n"
    "the command cannot be executed, 127 if it is not found. See quillon-device(1).\n";

bool isSet(const char* variable)
{
    const char* value = std::getenv(variable);
    return value != nullptr && std::strcmp(value, "1") == 0;
}

int refuseUsage(const std::string& what)
{
    complain(what + "; see quillon-device --help");
    return kNoDevice;
}

/// @return the status, or kNoDevice if what was written has not arrived
int finishOutput(int status)
{
    std::cout.flush();
    if (std::cout) {
        return status;
    }
    complain(std::string("standard output could not be written: ") + std::strerror(errno));
    return kNoDevice;
}

int refuseDevice(const std::string& why)
{
    complain("no device: " + why);
    return kNoDevice;
}

/// A closed standard descriptor would be given to a pipe of ours; the command finds it closed
/// again. Writing to it goes on failing.
void occupyStandardDescriptors()
{
    int fd = -1;
    do {
        fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    } while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0) {
        ::close(fd);
    }
}

int runInOneWay(Way way, const Command& command)
{
    std::string reason;
    const std::optional<int> status = runIsolated(way, command, reason);
    return status ? *status : refuseDevice(reason);
}

int runInAnyWay(const Command& command)
{
    std::string asRoot;
    if (const std::optional<int> status = runIsolated(Way::kRoot, command, asRoot)) {
        return *status;
    }
    std::string asUser;
    if (const std::optional<int> status = runIsolated(Way::kUser, command, asUser)) {
        return *status;
    }
    const std::string reason = "as root: " + asRoot + "; as user: " + asUser;
    if (disposableContainerMark().empty() && !isSet("QUILLON_DEVICE_IN_PLACE")) {
        return refuseDevice(reason +
                            ". Run it as root, allow user namespaces, or, on a machine that may "
                            "be thrown away, add --in-place");
    }
    const std::string obstacle = obstacleInPlace();
    if (!obstacle.empty()) {
        return refuseDevice(reason + "; in place: " + obstacle);
    }
    complain("no private namespaces here (" + reason +
             "); running in place, this disposable container's own paths are used");
    return runInPlace(command);
}

int runInWay(const std::string& isolation, const Command& command)
{
    try {
        if (isolation == "root") {
            return runInOneWay(Way::kRoot, command);
        }
        if (isolation == "user") {
            return runInOneWay(Way::kUser, command);
        }
        if (isolation == "auto") {
            return runInAnyWay(command);
        }
        complain("running in place, this machine's own paths are used");
        return runInPlace(command);
    } catch (const std::exception& error) {
        return refuseDevice(error.what());
    }
}

int runCommand(const std::string& isolation, Command command)
{
    const bool hadTerminal = ::tcgetpgrp(STDIN_FILENO) == ::getpgrp();
    command.signalMask = takeSignals();
    const int status = runInWay(isolation, command);
    // A shell in the device may have left the terminal to another process group.
    if (hadTerminal && ::tcgetpgrp(STDIN_FILENO) != ::getpgrp()) {
        static_cast<void>(::signal(SIGTTOU, SIG_IGN));  // or the next call would stop us
        ::tcsetpgrp(STDIN_FILENO, ::getpgrp());
    }
    return status;
}

std::string answer(bool possible, const std::string& why)
{
    return (possible ? "yes (" : "no (") + why + ")\n";
}

int showInfo()
{
    takeSignals();
    std::string asRoot;
    std::string asUser;
    const bool root = runIsolated(Way::kRoot, {}, asRoot).has_value();
    const bool user = runIsolated(Way::kUser, {}, asUser).has_value();
    std::string inPlace = obstacleInPlace();
    const bool writable = inPlace.empty();
    const std::string mark = disposableContainerMark();
    const bool allowed = !mark.empty() || isSet("QUILLON_DEVICE_IN_PLACE");
    if (writable) {
        inPlace = !mark.empty() ? "a disposable container: " + mark
                  : allowed     ? "QUILLON_DEVICE_IN_PLACE=1"
                                : "only with --in-place";
    }
    const std::string chosen = root                  ? "root"
                               : user                ? "user"
                               : writable && allowed ? "in-place"
                                                     : "none";
    std::cout << "root:      " << answer(root, root ? "private namespaces" : asRoot)
              << "user:      "
              << answer(user, user ? "private namespaces inside a user namespace" : asUser)
              << "in-place:  " << answer(writable, inPlace) << "auto:      " << chosen << '\n';
    return finishOutput(chosen == "none" ? kNoDevice : 0);
}

std::string shellOfUser()
{
    const char* shell = std::getenv("SHELL");
    return shell != nullptr && *shell != '\0' ? shell : "/bin/sh";
}

bool isWay(const std::string& name)
{
    return name == "auto" || name == "root" || name == "user" || name == "in-place";
}

/// @return nothing to go on, or the exit status to end with
std::optional<int> parseOptions(int argc, char** argv, std::string& isolation, Command& command)
{
    static const option kLong[] = {
        {"isolation", required_argument, nullptr, 'i'}, {"in-place", no_argument, nullptr, 'p'},
        {"no-aslr", no_argument, nullptr, 'a'},         {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},         {nullptr, 0, nullptr, 0}};
    opterr = 0;
    for (int found = 0; (found = ::getopt_long(argc, argv, "+hV", kLong, nullptr)) != -1;) {
        switch (found) {
            case 'i':
                if (!isWay(optarg)) {
                    return refuseUsage(std::string("no such way of isolation: ") + optarg);
                }
                isolation = optarg;
                break;
            case 'p':
                isolation = "in-place";
                break;
            case 'a':
                command.fixedAddresses = true;
                break;
            case 'h':
                std::cout << kUsage;
                return finishOutput(0);
            case 'V':
                std::cout << "quillon-device " << QUILLON_VERSION << '\n';
                return finishOutput(0);
            default:
                return refuseUsage(std::string("wrong option or no value: ") + argv[optind - 1]);
        }
    }
    return std::nullopt;
}

int runVerb(const std::string& verb, const std::string& isolation, Command command)
{
    if (verb == "run") {
        return command.arguments.empty() ? refuseUsage("no command to run")
                                         : runCommand(isolation, std::move(command));
    }
    if (!command.arguments.empty()) {
        return refuseUsage("what is " + command.arguments.front() + "?");
    }
    if (verb == "shell") {
        command.arguments = {shellOfUser()};
        return runCommand(isolation, std::move(command));
    }
    return verb == "info" ? showInfo() : refuseUsage("no such verb: " + verb);
}

}  // namespace

int main(int argc, char** argv)
{
    occupyStandardDescriptors();
    if (argc < 2) {
        return refuseUsage("no verb");
    }
    std::string isolation = "auto";
    Command command;
    command.fixedAddresses = isSet("QUILLON_DEVICE_NO_ASLR");
    const bool hasVerb = argv[1][0] != '-';
    const int skipped = hasVerb ? 1 : 0;
    if (const auto status = parseOptions(argc - skipped, argv + skipped, isolation, command)) {
        return *status;
    }
    if (!hasVerb) {
        return refuseUsage("no verb");
    }
    command.arguments.assign(argv + skipped + optind, argv + argc);
    return runVerb(argv[1], isolation, std::move(command));
}
