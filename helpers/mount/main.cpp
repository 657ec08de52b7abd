#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <optional>

#include "base/fd.h"
#include "base/signals-blocked.h"
#include "helpers/mount/handle-request.h"
#include "helpers/mount/listening-socket.h"
#include "helpers/mount/mount-log.h"
#include "helpers/mount/server.h"
#include "helpers/shared/caller-options.h"
#include "helpers/shared/callers.h"
#include "helpers/shared/failure.h"

using namespace quillon;
using namespace quillon::privileged;

namespace {

constexpr int kFailed = 1;

constexpr const char* kName = "quillon-privileged";
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

/// Readable once we are told to end.
UniqueFd endSignal()
{
    const sigset_t signals = signalSet({SIGTERM, SIGINT});
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
    const UniqueFd inherited = inheritedSocket();
    std::optional<OwnSocket> own;
    if (!inherited) {
        own.emplace(QUILLON_PRIVILEGED_SOCKET, callers);
    }
    PRIVILEGED_LOGI("ready, %s", inherited ? "on an inherited socket" : QUILLON_PRIVILEGED_SOCKET);
    Server(inherited ? inherited.get() : own->get(), callers, &handleRequest)
        .runUntilReadable(end.get());
    PRIVILEGED_LOGI("%s", "ended by a signal");
}

}  // namespace

int main(int argc, char** argv)
{
    Callers callers;
    if (const auto status = parseCallerOptions(argc, argv, kName, kHelp, callers)) {
        return *status;
    }
    if (geteuid() != 0) {
        return complain(kName, kFailed, "needs to run as root");
    }
    static_cast<void>(signal(SIGPIPE, SIG_IGN));  // whoever reads what we say may go before us
    try {
        serve(callers);
        return 0;
    } catch (const Failure& failure) {
        return complain(kName, kFailed, failure.what());
    }
}
