#include "helpers/lifecycle/client-lock-file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "base/fd.h"
#include "helpers/lifecycle/taken-name.h"
#include "helpers/lifecycle/unit-failure.h"

namespace quillon::unit {

namespace {

constexpr mode_t kMode = 0666;

void openToEverybody(const UniqueFd& file, const std::string& path)
{
    if (fchown(file.get(), 0, 0) != 0 || fchmod(file.get(), kMode) != 0) {
        failWithErrno("cannot give " + path + " to everybody");
    }
}

/// Makes it only where nothing is: a client that is as fast may hold its own already.
bool isMade(const std::string& path)
{
    const UniqueFd file(open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kMode));
    if (file.get() == -1) {
        return false;
    }
    openToEverybody(file, path);
    return true;
}

/// What keeps a file from becoming the lock; empty when nothing does. Whoever can rename a file to
/// this name may not be one who can read it.
std::string faultOf(const struct stat& status)
{
    if (status.st_nlink != 1) {
        return "has a second name";
    }
    return (status.st_mode & ALLPERMS) == kMode ? "" : "has another mode than 0666";
}

}  // namespace

void provideClientLock(const std::string& path)
{
    if (isMade(path)) {
        return;
    }
    if (errno != EEXIST) {
        failWithErrno("cannot make " + path);
    }
    const UniqueFd file(open(path.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status = {};
    const bool isFile =
        file.get() != -1 && fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode);
    const std::string fault = isFile ? faultOf(status) : "is no file";
    if (fault.empty()) {
        openToEverybody(file, path);
        return;
    }
    if (isFile && flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
        say(Priority::kWarning, "the clients' lock " + path + " " + fault +
                                    ", and stays, since somebody holds it; restart the service "
                                    "once nobody does");
        return;
    }
    putFile(path, 0, 0, kMode);
}

}  // namespace quillon::unit
