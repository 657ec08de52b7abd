#include <getopt.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <exception>
#include <iostream>
#include <optional>
#include <string>

#include "caller-names.h"
#include "callers.h"
#include "serve-client.h"

using namespace quillon;
using privileged::Callers;

namespace {

constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;
constexpr unsigned kLongestLife = 30;  // seconds; no client waits any longer

constexpr const char* kHelp =
    "usage: quillon-storage [--user USER] [--group GROUP] < CONNECTION\n"
    "\n"
    "Reads an item of the secure storage, or installs a provisioning package, for\n"
    "the update service, which has no right to do so. A service manager starts it\n"
    "for each connection to " QUILLON_STORAGE_SOCKET
    ".\n"
    "\n"
    "  -u, --user USER    who may ask next to root, a name or a number\n"
    "  -g, --group GROUP  whose members may ask next to root, a name or a number\n"
    "  -h, --help         this text\n"
    "  -V, --version      the version\n"
    "\n"
    "Exit status: 0 the client was answered or turned away, 1 failed, 2 wrong usage.\n";

int complain(int status, const std::string& line)
{
    std::cerr << "quillon-storage: " + line + "\n";
    return status;
}

/// @return the exit status when there is nothing left to do
std::optional<int> parseOptions(int argc, char** argv, Callers& callers)
{
    const option options[] = {{"user", required_argument, nullptr, 'u'},
                              {"group", required_argument, nullptr, 'g'},
                              {"help", no_argument, nullptr, 'h'},
                              {"version", no_argument, nullptr, 'V'},
                              {nullptr, 0, nullptr, 0}};
    opterr = 0;
    for (int letter = 0; (letter = getopt_long(argc, argv, "u:g:hV", options, nullptr)) != -1;) {
        switch (letter) {
            case 'u':
                callers.user = privileged::userNamed(optarg);
                if (!callers.user) {
                    return complain(kWrongUsage, std::string("no such user: ") + optarg);
                }
                break;
            case 'g':
                callers.group = privileged::groupNamed(optarg);
                if (!callers.group) {
                    return complain(kWrongUsage, std::string("no such group: ") + optarg);
                }
                break;
            case 'h':
                std::cout << kHelp;
                return 0;
            case 'V':
                std::cout << "quillon-storage " QUILLON_VERSION "\n";
                return 0;
            default:
                return complain(kWrongUsage, std::string("wrong option or no value: ") +
                                                 argv[optind - 1] + "; see --help");
        }
    }
    if (optind < argc) {
        return complain(kWrongUsage, std::string("what is ") + argv[optind] + "? see --help");
    }
    return std::nullopt;
}

/// What passes through this process shall not end up in a core file.
void keepMemoryPrivate()
{
    const rlimit nothing = {0, 0};
    static_cast<void>(setrlimit(RLIMIT_CORE, &nothing));
    static_cast<void>(prctl(PR_SET_DUMPABLE, 0));
}

}  // namespace

int main(int argc, char** argv)
{
    Callers callers;
    if (const auto status = parseOptions(argc, argv, callers)) {
        return *status;
    }
    if (geteuid() != 0) {
        return complain(kFailed, "needs to run as root");
    }
    keepMemoryPrivate();
    alarm(kLongestLife);
    try {
        storage::serveClient(STDIN_FILENO, callers);
        return 0;
    } catch (const std::exception& failure) {
        return complain(kFailed, failure.what());
    }
}
