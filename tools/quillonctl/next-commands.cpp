#include "tools/quillonctl/next-commands.h"

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include "src/support/paths.h"

namespace quillon {
namespace {

constexpr const char* kInitScript = "/etc/init.d/quillon";
constexpr const char* kLogOfInitScript = "/var/log/quillon.log";

bool isThere(const char* path)
{
    return access(path, F_OK) == 0;
}

}  // namespace

// As sd_booted(3) does.
bool hasSystemd()
{
    struct stat status = {};
    return lstat("/run/systemd/system", &status) == 0 && S_ISDIR(status.st_mode);
}

std::string startService()
{
    if (hasSystemd()) {
        return "systemctl start quillon";
    }
    if (isThere(kInitScript)) {
        return std::string(kInitScript) + " start";
    }
    const std::string markers = std::string(paths::kLabellingReady) + " " + paths::kLifeMarker;
    return "rm -f " + markers + "; touch " + markers +  // others may have put links there
           "; quillon-service 2>>" + kLogOfInitScript + " &";
}

std::string restartService()
{
    if (hasSystemd()) {
        return "systemctl restart quillon";
    }
    if (isThere(kInitScript)) {
        return std::string(kInitScript) + " stop && " + startService();
    }
    return std::string("rm -f ") + paths::kLifeMarker +
           "; while pidof quillon-service; do sleep 1; done; rm -f /dev/mqueue/fwupdate*_usb " +
           paths::kReadyEvent + "; " + startService();
}

std::string restartMountingHelper()
{
    if (hasSystemd()) {
        return "systemctl restart quillon-privileged";
    }
    return std::string("kill -KILL $(pidof quillon-privileged); " QUILLON_HELPERS
                       "/quillon-privileged") +
           (getgrnam("quillon") != nullptr ? " --group quillon &" : " &");
}

std::string serviceLog()
{
    if (hasSystemd()) {
        return "journalctl -b -u quillon";
    }
    return isThere(kLogOfInitScript) ? std::string("tail -n 50 ") + kLogOfInitScript
                                     : "the service's standard error";
}

std::string namedServiceLog()
{
    return "the update service's log (" + serviceLog() + ")";
}

std::string logOf(const char* tag)
{
    return hasSystemd() ? std::string("journalctl -b -t ") + tag : "standard error";
}

}  // namespace quillon
