#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <exception>
#include <string>

#include "base/secret-bytes.h"
#include "helpers/shared/caller-options.h"
#include "helpers/storage/serve-client.h"
#include "platform/storage/install-package.h"
#include "platform/storage/provisioning-content.h"
#include "platform/verifier/input-file.h"

using namespace quillon;

namespace {

constexpr int kFailed = 1;
constexpr unsigned kLongestLife = 30;  // seconds; no client waits any longer

constexpr const char* kName = "quillon-storage";
constexpr const char* kHelp =
    "usage: quillon-storage [--user USER] [--group GROUP] < CONNECTION\n"
    "       quillon-storage --install PACKAGE\n"
    "\n"
    "Reads an item of the secure storage, or installs a provisioning package, for\n"
    "the update service, which does not run as root. A service manager starts it\n"
    "for each connection to " QUILLON_STORAGE_SOCKET
    ".\n"
    "\n"
    "  -i, --install PACKAGE  install a provisioning package and exit; for root only\n"
    "  -u, --user USER        a user who may send requests in addition to root,\n"
    "                         a name or a number\n"
    "  -g, --group GROUP      a group whose members may send requests in addition to\n"
    "                         root, a name or a number\n"
    "  -h, --help             print this help\n"
    "  -V, --version          print the version\n"
    "\n"
    "Exit status: 0 the client was answered or refused, or the package is\n"
    "installed; 1 failure, 2 wrong usage.\n";

/// What passes through this process shall not end up in a core file.
void keepMemoryPrivate()
{
    const rlimit nothing = {0, 0};
    static_cast<void>(setrlimit(RLIMIT_CORE, &nothing));
    static_cast<void>(prctl(PR_SET_DUMPABLE, 0));
}

int install(const std::string& path)
{
    const std::string text = readSmallFile(path, kLargestPackage);
    switch (installPackage(path, SecretBytes(text.begin(), text.end()))) {
        case kInstalled:
        case kAlreadyInstalled:
            return 0;
        default:
            return kFailed;  // the log says why
    }
}

}  // namespace

int main(int argc, char** argv)
{
    constexpr int kWordsOfInstall = 3;
    const std::string verb = argc == kWordsOfInstall ? argv[1] : "";
    const bool isInstall = verb == "-i" || verb == "--install";
    Callers callers;
    if (isInstall) {
        // Nobody else asks.
    } else if (const auto status = parseCallerOptions(argc, argv, kName, kHelp, callers)) {
        return *status;
    }
    if (geteuid() != 0) {
        return complain(kName, kFailed, "needs to run as root");
    }
    keepMemoryPrivate();
    alarm(kLongestLife);
    try {
        if (isInstall) {
            return install(argv[2]);
        }
        storage::serveClient(STDIN_FILENO, callers);
        return 0;
    } catch (const std::exception& failure) {
        return complain(kName, kFailed, failure.what());
    }
}
