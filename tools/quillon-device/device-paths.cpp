#include "tools/quillon-device/device-paths.h"

#include <algorithm>
#include <filesystem>

namespace fs = std::filesystem;

namespace quillon::device {

namespace {

std::vector<std::string> existingDirectories(const std::vector<std::string>& directories)
{
    std::vector<std::string> existing;
    for (const std::string& directory : directories) {
        std::error_code ignored;
        const std::string real = resolved(directory);
        if (fs::is_directory(real, ignored) &&
            std::find(existing.begin(), existing.end(), real) == existing.end()) {
            existing.push_back(real);
        }
    }
    return existing;
}

}  // namespace

std::vector<std::string> serviceDirectories()
{
    std::vector<std::string> directories = {
        "/usr/fwupdate/controls",
        "/opt/media",
        "/opt/usr/apps/appbinarymanager",  // emptied first, then given its directory for mounts
        "/opt/usr/apps/appbinarymanager/emps",
        "/opt/usr/share/sbox",
        "/usr/lib/firmware/ext",
        "/usr/share/sdp",
        "/var/lib/quillon",
        "/etc/quillon/examples",
        "/etc/quillon/trusted-keys",
        "/etc/quillon/provisioning-certificates",
        "/run/quillon",
    };
    std::error_code ignored;
    if (fs::is_directory(fs::symlink_status("/lib", ignored))) {  // not a link to usr/lib
        directories.emplace_back("/lib/firmware/ext");
    }
    return directories;
}

std::vector<std::string> serviceFiles()
{
    return {
        "/tmp/smack_early_ready",  "/tmp/fw_update_ready_usb",   "/tmp/.fw_service_ready_usb",
        "/tmp/.ignore_resume",     "/tmp/fwupdate-off-list.txt", "/usr/lib/libkUEPUser.so",
        "/etc/quillon/trust.conf",
    };
}

std::vector<std::string> hostServiceDirectories()
{
    return existingDirectories({"/run/lock", "/run/dbus", "/run/systemd/journal"});
}

std::vector<std::string> privateTops()
{
    return existingDirectories({"/usr", "/etc", "/opt", "/var", "/tmp", "/run", "/lib"});
}

std::vector<std::string> scratchDirectories()
{
    return existingDirectories({"/var/tmp", "/run/lock", "/var/lib/systemd"});
}

bool staysOutside(const std::string& directory)
{
    std::vector<std::string> anew = serviceDirectories();
    const std::vector<std::string> hostDirectories = hostServiceDirectories();
    anew.insert(anew.end(), hostDirectories.begin(), hostDirectories.end());
    anew.insert(anew.end(), {"/dev/shm", "/dev/mqueue", "/dev/pts", "/proc"});
    return std::any_of(anew.begin(), anew.end(), [&](const std::string& made) {
        return made != directory && isWithin(directory, resolved(made));
    });
}

bool isWithin(const std::string& path, const std::string& directory)
{
    return (path + "/").rfind(directory + "/", 0) == 0;
}

bool isWithinAny(const std::string& path, const std::vector<std::string>& directories)
{
    return std::any_of(directories.begin(), directories.end(),
                       [&](const std::string& directory) { return isWithin(path, directory); });
}

bool isOnTheWay(const std::string& directory, const std::vector<std::string>& paths)
{
    return std::any_of(paths.begin(), paths.end(),
                       [&](const std::string& path) { return isWithin(path, directory); });
}

std::string resolved(const std::string& path)
{
    std::error_code error;
    const fs::path real = fs::weakly_canonical(path, error);
    return error ? path : real.string();
}

}  // namespace quillon::device
