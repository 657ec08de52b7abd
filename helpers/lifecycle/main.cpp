#include <dlfcn.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "base/fd.h"
#include "base/handles.h"
#include "client/client-lock.h"
#include "helpers/lifecycle/client-lock-file.h"
#include "helpers/lifecycle/orderly-end.h"
#include "helpers/lifecycle/own-queues.h"
#include "helpers/lifecycle/quarantine.h"
#include "helpers/lifecycle/service-manager.h"
#include "helpers/lifecycle/taken-name.h"
#include "helpers/lifecycle/trusted-places.h"
#include "helpers/lifecycle/unit-failure.h"
#include "helpers/lifecycle/update-semaphore.h"
#include "platform/linux/event-placeholder.h"
#include "src/support/paths.h"

using namespace quillon;
using namespace quillon::unit;

namespace {

constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;

constexpr const char* kHelp =
    "usage: quillon-unit prepare [--queue-group GROUP] USER | end PROCESS | tidy |\n"
    "                    quarantine | require-verifier | require-trust\n"
    "\n"
    "quillon.service runs this program before and after the daemon. All commands except\n"
    "require-verifier need root.\n"
    "\n"
    "  prepare USER      create the markers and the queues for a daemon that runs as USER,\n"
    "                    and the semaphore and the lock of control layers and clients;\n"
    "                    replace other files at their paths. With GROUP, or with\n"
    "                    $QUILLON_QUEUE_GROUP, only its members may use the queues\n"
    "  end PROCESS       remove the life marker and wait until the daemon has ended\n"
    "  tidy              remove the life marker and the readiness event; fail if the daemon\n"
    "                    has ended with status 0, or by a signal that counts as success,\n"
    "                    but has left its life marker\n"
    "  quarantine        if the daemon has failed while it loaded the same module at three\n"
    "                    starts in a row, move that module away\n"
    "  require-verifier  fail if the signature verifier cannot be loaded\n"
    "  require-trust     fail if a user other than root can change what the device trusts:\n"
    "                    keys, certificates, policy, floors, verifier and modules\n"
    "\n"
    "Exit status: 0 success, 1 failure, 2 wrong usage.\n";

/// A file of root's or the user's under this name only: what a link to a file of theirs leads to is
/// no such file.
bool isMadeBy(const char* path, uid_t user)
{
    struct stat status = {};
    return lstat(path, &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 1 &&
           (status.st_uid == 0 || status.st_uid == user);
}

/// Whether no control layer is at the packages. One that is has locked their directory, and may be
/// writing the update list.
bool isNobodyAtThePackages()
{
    const UniqueFd directory(open(paths::kMountedPackages, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return !directory || flock(directory.get(), LOCK_EX | LOCK_NB) == 0;
}

/// Gives a list of root's to the user, who could not replace it otherwise. Removes one of anybody
/// else, unless that user's check may be writing it. Throws std::system_error.
void provideUpdateList(uid_t user)
{
    const UniqueFd list(
        open(paths::kUpdateList, O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!list && errno == ENOENT) {
        return;
    }
    struct stat status = {};
    const bool isGood = list && fstat(list.get(), &status) == 0 && S_ISREG(status.st_mode) &&
                        status.st_nlink == 1 && (status.st_uid == 0 || status.st_uid == user);
    if (!isGood && isNobodyAtThePackages()) {
        clear(paths::kUpdateList);
    }
    if (isGood && fchown(list.get(), user, status.st_gid) != 0) {
        throw std::system_error(errno, std::generic_category(), paths::kUpdateList);
    }
}

/// Nobody else can raise the event then, and it is not raised.
void keepFree(const char* event, const passwd& user)
{
    putDeadLink(event, kEventPlaceholder, user.pw_uid, user.pw_gid);
}

/// What the clients and the control layers share. The service does without, so it starts all the
/// same when one of these cannot be had.
void prepareForOthers(const passwd& user)
{
    const auto attempt = [](const std::function<void()>& step) {
        try {
            step();
        } catch (const std::system_error& error) {
            say(Priority::kError, error.what());
        }
    };
    attempt([&] { provideSemaphore(user.pw_uid, user.pw_gid); });
    attempt([&] { provideClientLock(ClientLock::defaultPath()); });
    attempt([&] { provideUpdateList(user.pw_uid); });
    attempt([&] {
        if (!isMadeBy(paths::kIgnoreResumeEvent, user.pw_uid)) {
            keepFree(paths::kIgnoreResumeEvent, user);
        }
    });
}

/// @param queueGroup  empty: everybody may use the queues
int prepare(const std::string& queueGroup, const std::string& name)
{
    const passwd* user = getpwnam(name.c_str());
    const group* members = queueGroup.empty() ? nullptr : getgrnam(queueGroup.c_str());
    if (user == nullptr) {
        say(Priority::kError, "no such user: " + name);
        return kFailed;
    }
    if (!queueGroup.empty() && members == nullptr) {
        say(Priority::kError, "no such group for the queues: " + queueGroup +
                                  "; make it with groupadd --system " + queueGroup);
        return kFailed;
    }
    // A device with a labelling of its own makes this one itself.
    if (!isMadeBy(paths::kLabellingReady, user->pw_uid)) {
        putFile(paths::kLabellingReady, 0, 0);
    }
    keepFree(paths::kReadyEvent, *user);
    provideQueues(members != nullptr ? groupQueues(members->gr_gid)
                                     : openQueues(user->pw_uid, user->pw_gid));
    prepareForOthers(*user);
    putFile(paths::kLifeMarker, user->pw_uid, user->pw_gid);
    if (const std::string trouble = troubleWithModules(); !trouble.empty()) {
        tellServiceManager("STATUS=" + trouble);
    }
    return 0;
}

int end(const char* process)
{
    const bool isNumber = process[std::strspn(process, "0123456789")] == '\0';
    endAndWait(paths::kLifeMarker,
               isNumber ? static_cast<pid_t>(std::strtol(process, nullptr, 10)) : 0);
    return 0;
}

bool isInEnvironment(const char* name, std::string_view value)
{
    const char* found = std::getenv(name);
    return found != nullptr && found == value;
}

bool isFile(const char* path)
{
    struct stat status = {};
    return lstat(path, &status) == 0 && S_ISREG(status.st_mode);
}

/// How the daemon has ended if the service manager takes that for a success although the daemon had
/// not come to its own end: it takes its marker away as its last act, and `end` puts a link there
/// before that. Empty after every other end.
std::string endFromInside()
{
    if (!isInEnvironment("SERVICE_RESULT", "success") || !isFile(paths::kLifeMarker)) {
        return "";
    }
    if (isInEnvironment("EXIT_CODE", "exited")) {
        return "with status 0, but not by its own end: a module has called exit()";
    }
    // One that is stopped before it is ready gets a signal instead of `end`.
    const char* signal = std::getenv("EXIT_STATUS");
    if (isInEnvironment("EXIT_CODE", "killed") && signal != nullptr && isFile(paths::kReadyEvent)) {
        return std::string("by the signal SIG") + signal +
               ", but was not stopped: unless root has sent that, a module has";
    }
    return "";
}

/// @return kFailed also when the service manager is to start the daemon again
int tidy()
{
    const std::string unwanted = endFromInside();
    clear(paths::kReadyEvent);
    clear(paths::kLifeMarker);
    // Commands outlive a crash.
    const char* result = std::getenv("SERVICE_RESULT");
    if (unwanted.empty() && (result == nullptr || isInEnvironment("SERVICE_RESULT", "success"))) {
        removeGroupQueues();
    }
    if (unwanted.empty()) {
        return 0;
    }
    say(Priority::kError, "the service ended " + unwanted +
                              ". Look in the journal for the module that was at work last, and "
                              "take it out of the modules' directory or mend it");
    return kFailed;
}

int quarantine()
{
    const char* result = std::getenv("SERVICE_RESULT");
    judgeStart(result != nullptr && !isInEnvironment("SERVICE_RESULT", "success"));
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
    const std::vector<std::string> faults = faultsOf(trustedPlaces());
    for (const std::string& fault : faults) {
        say(Priority::kError, fault);
    }
    return faults.empty() ? 0 : kFailed;
}

int print(const char* text)
{
    if (!(std::cout << text << std::flush)) {
        std::cerr << "quillon-unit: standard output could not be written\n";
        return kFailed;
    }
    return 0;
}

int run(const std::vector<std::string>& arguments)
{
    const std::string verb = arguments.empty() ? "" : arguments[0];
    const std::size_t count = arguments.size();
    if (verb == "prepare" && count == 2) {
        const char* queueGroup = std::getenv("QUILLON_QUEUE_GROUP");
        return prepare(queueGroup != nullptr ? queueGroup : "", arguments[1]);
    }
    if (verb == "prepare" && count == 4 && arguments[1] == "--queue-group") {
        return prepare(arguments[2], arguments[3]);
    }
    if (verb == "tidy" && count == 1) {
        return tidy();
    }
    if (verb == "quarantine" && count == 1) {
        return quarantine();
    }
    if (verb == "require-verifier" && count == 1) {
        return requireVerifier();
    }
    if (verb == "require-trust" && count == 1) {
        return requireTrust();
    }
    if (verb == "--help" && count == 1) {
        return print(kHelp);
    }
    if (verb == "--version" && count == 1) {
        return print("quillon-unit " QUILLON_VERSION "\n");
    }
    std::cerr << "quillon-unit: wrong usage; see --help\n";
    return kWrongUsage;
}

}  // namespace

int main(int argc, char** argv)
{
    // If this returns early, the service is killed in an update: it must work without memory. No
    // process is named where the daemon has ended before it was told to.
    if ((argc == 2 || argc == 3) && std::strcmp(argv[1], "end") == 0) {
        return end(argc == 3 ? argv[2] : "");
    }
    try {
        return run(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const std::exception& error) {
        say(Priority::kError, error.what());
        return kFailed;
    }
}
