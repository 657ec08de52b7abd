#include "platform/events.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "base/fd.h"
#include "base/regular-file.h"
#include "platform/linux/event-placeholder.h"

namespace quillon {
namespace {

constexpr char kServiceReady[] = "/tmp/.fw_service_ready_usb";
constexpr mode_t kEventMode = 0644;
constexpr int kKeepEnvironment = 0;

// Raised before: a new time stamp is what a watcher sees. What is not a file of our own stays as it
// is, since anybody may have put it or a link into /tmp.
bool raiseAgain(const char* name)
{
    UniqueFd fd;
    struct stat status = {};
    const FileResult opened = openRegularFile(name, O_NOFOLLOW, fd, status);
    const bool isForeign = opened == FileResult::kOk && status.st_uid != geteuid();
    if (opened == FileResult::kNotRegular || isForeign) {
        errno = EEXIST;
        return false;
    }
    return opened == FileResult::kOk && futimens(fd.get(), nullptr) == 0;
}

bool isKeptFree(const char* name)
{
    char target[sizeof kEventPlaceholder] = {};
    const ssize_t length = readlink(name, target, sizeof target);
    return length > 0 &&
           std::string_view(target, static_cast<std::size_t>(length)) == kEventPlaceholder;
}

// In one step, since nobody must get hold of the name in between. A link that is not ours to
// replace is one more thing in the way.
bool replacePlaceholder(const char* name)
{
    char file[PATH_MAX] = {};
    const int length = std::snprintf(file, sizeof file, "%s.XXXXXX", name);
    if (length < 0 || static_cast<std::size_t>(length) >= sizeof file) {
        errno = ENAMETOOLONG;
        return false;
    }
    const UniqueFd fd(mkostemp(file, O_CLOEXEC));
    if (!fd) {
        return false;
    }
    if (fchmod(fd.get(), kEventMode) == 0 && rename(file, name) == 0) {
        return true;
    }
    const int reason = errno == EPERM || errno == EACCES ? EEXIST : errno;
    unlink(file);
    errno = reason;
    return false;
}

bool raise(const char* name)
{
    // With O_EXCL a link is never followed and nothing that is there is opened.
    const UniqueFd fd(open(name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kEventMode));
    if (fd) {
        return fchmod(fd.get(), kEventMode) == 0;  // whatever the umask
    }
    if (errno != EEXIST) {
        return false;
    }
    return isKeptFree(name) ? replacePlaceholder(name) : raiseAgain(name);
}

}  // namespace
}  // namespace quillon

int LwipcEventDone(const char* name)
{
    using namespace quillon;
    if (name == nullptr || *name != '/') {
        errno = EINVAL;
        return -1;
    }
    const bool raised = raise(name);
    if (std::strcmp(name, kServiceReady) != 0) {
        return raised ? 0 : -1;
    }
    // The service manager is told even where the file could not be made: the service serves all the
    // same and must not be stopped for it.
    const int reason = errno;
    const int told = sd_notify(kKeepEnvironment, "READY=1");
    errno = raised ? -std::min(told, 0) : reason;
    return raised && told >= 0 ? 0 : -1;
}
