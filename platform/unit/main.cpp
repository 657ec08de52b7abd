#include <dlfcn.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "orderly-end.h"
#include "own-queues.h"
#include "support/paths.h"
#include "support/unique-handles.h"
#include "taken-name.h"
#include "trusted-places.h"
#include "unit-failure.h"

using namespace quillon;
using namespace quillon::unit;

namespace {

constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;

constexpr const char* kHelp =
    "usage: quillon-unit prepare USER | end PROCESS | tidy | require-verifier |\n"
    "                    require-trust\n"
    "\n"
    "What quillon.service runs around the daemon. All but require-verifier need root.\n"
    "\n"
    "  prepare USER      make the markers and the queues that the daemon, running as USER,\n"
    "                    needs, whatever others have put in their places\n"
    "  end PROCESS       take the life marker away and wait until the daemon has ended\n"
    "  tidy              take away what says that the daemon is alive and ready\n"
    "  require-verifier  fail unless the signature verifier can be loaded\n"
    "  require-trust     fail unless root alone can change what the device trusts: keys,\n"
    "                    certificates, policy, floors, verifier and modules\n"
    "\n"
    "Exit status: 0 done, 1 failed, 2 wrong usage.\n";

bool isMadeBy(const char* path, uid_t user)
{
    struct stat status = {};
    return lstat(path, &status) == 0 && S_ISREG(status.st_mode) &&
           (status.st_uid == 0 || status.st_uid == user);
}

int prepare(const char* name)
{
    const passwd* user = getpwnam(name);
    if (user == nullptr) {
        say(Priority::kError, std::string("no such user: ") + name);
        return kFailed;
    }
    // A device with a labelling of its own makes this one itself.
    if (!isMadeBy(paths::kLabellingReady, user->pw_uid)) {
        putFile(paths::kLabellingReady, 0, 0);
    }
    clear(paths::kReadyEvent);
    provideQueues(user->pw_uid, user->pw_gid);
    putFile(paths::kLifeMarker, user->pw_uid, user->pw_gid);
    return 0;
}

int end(const std::string& process)
{
    const bool isNumber =
        !process.empty() && process.find_first_not_of("0123456789") == process.npos;
    endAndWait(paths::kLifeMarker,
               isNumber ? static_cast<pid_t>(std::strtol(process.c_str(), nullptr, 10)) : 0);
    return 0;
}

int tidy()
{
    clear(paths::kReadyEvent);
    clear(paths::kLifeMarker);
    return 0;
}

int requireVerifier()
{
    const std::unique_ptr<void, LibraryCloser> library(
        dlopen(paths::kVerifierLibrary, RTLD_NOW | RTLD_LOCAL));
    if (library && dlsym(library.get(), "verifyFile") != nullptr) {
        return 0;
    }
    const char* error = dlerror();
    say(Priority::kError,
        std::string("the signature verifier cannot be used, and without it every image counts as "
                    "signed: ") +
            (error != nullptr ? error : "its entry is null"));
    return kFailed;
}

int requireTrust()
{
    const std::vector<std::string> faults =
        faultsOf({QUILLON_TRUSTED_KEYS, QUILLON_PROVISIONING_CERTIFICATES, QUILLON_TRUST_POLICY,
                  QUILLON_SECURITY_FLOORS, paths::kVerifierLibrary, paths::kModules});
    for (const std::string& fault : faults) {
        say(Priority::kError, fault);
    }
    return faults.empty() ? 0 : kFailed;
}

int run(const std::vector<std::string>& arguments)
{
    const std::string verb = arguments.empty() ? "" : arguments[0];
    const std::size_t count = arguments.size();
    if (verb == "prepare" && count == 2) {
        return prepare(arguments[1].c_str());
    }
    // No process is left where the daemon has ended before it was told to.
    if (verb == "end" && count <= 2) {
        return end(count == 2 ? arguments[1] : "");
    }
    if (verb == "tidy" && count == 1) {
        return tidy();
    }
    if (verb == "require-verifier" && count == 1) {
        return requireVerifier();
    }
    if (verb == "require-trust" && count == 1) {
        return requireTrust();
    }
    if (verb == "--help" && count == 1) {
        std::cout << kHelp;
        return 0;
    }
    if (verb == "--version" && count == 1) {
        std::cout << "quillon-unit " QUILLON_VERSION "\n";
        return 0;
    }
    std::cerr << "quillon-unit: wrong usage; see --help\n";
    return kWrongUsage;
}

}  // namespace

int main(int argc, char** argv)
{
    try {
        return run(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const std::system_error& error) {
        say(Priority::kError, error.what());
        return kFailed;
    }
}
