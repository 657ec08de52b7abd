#include <getopt.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <iostream>
#include <optional>
#include <string>

#include "caller-names.h"
#include "callers.h"
#include "failure.h"
#include "handle-request.h"
#include "listening-socket.h"
#include "privileged-log.h"
#include "server.h"

using namespace quillon;
using namespace quillon::privileged;

namespace {

constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;

constexpr const char* kHelp =
    "usage: quillon-privileged [--user USER] [--group GROUP]\n"
    "\n"
    "Mounts packages and makes loop device nodes for the update service, which has\n"
    "no right to do so. Takes the socket that a service manager hands over, or else\n"
    "makes " QUILLON_PRIVILEGED_SOCKET
    ".\n"
    "\n"
    "  -u, --user USER    who may ask next to root, a name or a number\n"
    "  -g, --group GROUP  whose members may ask next to root, a name or a number\n"
    "  -h, --help         this text\n"
    "  -V, --version      the version\n"
    "\n"
    "Runs until SIGTERM or SIGINT. Exit status: 0 ended so, 1 failed, 2 wrong usage.\n";

int complain(int status, const std::string& line)
{
    std::cerr << "quillon-privileged: " + line + "\n";
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
                callers.user = userNamed(optarg);
                if (!callers.user) {
                    return complain(kWrongUsage, std::string("no such user: ") + optarg);
                }
                break;
            case 'g':
                callers.group = groupNamed(optarg);
                if (!callers.group) {
                    return complain(kWrongUsage, std::string("no such group: ") + optarg);
                }
                break;
            case 'h':
                std::cout << kHelp;
                return 0;
            case 'V':
                std::cout << "quillon-privileged " QUILLON_VERSION "\n";
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

/// Readable once we are told to end.
UniqueFd endSignal()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    UniqueFd end;
    if (sigprocmask(SIG_BLOCK, &signals, nullptr) == 0) {
        end = UniqueFd(signalfd(-1, &signals, SFD_CLOEXEC));
    }
    if (!end) {
        failWithErrno("signalfd");
    }
    return end;
}

void serve(const Callers& callers)
{
    const UniqueFd end = endSignal();
    const std::optional<UniqueFd> inherited = inheritedSocket();
    std::optional<OwnSocket> own;
    if (!inherited) {
        own.emplace(QUILLON_PRIVILEGED_SOCKET, callers);
    }
    PRIVILEGED_LOGI("ready, %s", inherited ? "on an inherited socket" : QUILLON_PRIVILEGED_SOCKET);
    Server(inherited ? inherited->get() : own->get(), callers, &handleRequest)
        .runUntilReadable(end.get());
    PRIVILEGED_LOGI("%s", "ended by a signal");
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
    static_cast<void>(signal(SIGPIPE, SIG_IGN));  // whoever reads what we say may go before us
    try {
        serve(callers);
        return 0;
    } catch (const Failure& failure) {
        return complain(kFailed, failure.what());
    }
}
