#include "tools/quillon-device/device-dev.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "tools/quillon-device/mounts.h"
#include "tools/quillon-device/setup-error.h"

namespace quillon::device {

namespace {

constexpr unsigned kLoopDevices = 16;
constexpr unsigned kLoopMajor = 7;

/// @return false with errno telling why
bool bindFromHost(int hostDev, const std::string& name, const std::string& path)
{
    const std::string source = "/proc/self/fd/" + std::to_string(hostDev) + "/" + name;
    return ::mount(source.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) == 0;
}

/// A node of our own where that is allowed: a change of its mode then stays inside, too.
void addNode(int hostDev, const std::string& name)
{
    struct stat info = {};
    if (::fstatat(hostDev, name.c_str(), &info, 0) != 0) {
        return;
    }
    const std::string path = "/dev/" + name;
    if (::mknod(path.c_str(), info.st_mode, info.st_rdev) == 0) {
        require(::chown(path.c_str(), info.st_uid, info.st_gid) == 0 &&
                    ::chmod(path.c_str(), info.st_mode & 07777U) == 0,
                path);
        return;
    }
    makeFile(path);
    require(bindFromHost(hostDev, name, path), "bind " + path);
}

/// As many as ever, whatever number the host has nodes for.
void addLoopDevices(int hostDev)
{
    addNode(hostDev, "loop-control");
    if (::access("/dev/loop-control", F_OK) != 0) {
        return;
    }
    for (unsigned number = 0; number < kLoopDevices; ++number) {
        const std::string name = "loop" + std::to_string(number);
        addNode(hostDev, name);
        // The one from the host is there already; a user namespace has to do with those.
        ::mknod(("/dev/" + name).c_str(), S_IFBLK | 0660, makedev(kLoopMajor, number));
    }
}

void addDirectory(const char* path)
{
    require(::mkdir(path, 0755) == 0, path);
}

void addLink(const char* target, const char* path)
{
    require(::symlink(target, path) == 0, path);
}

void addTerminals(int hostDev)
{
    addDirectory("/dev/pts");
    const bool isOurs = ::mount("devpts", "/dev/pts", "devpts", MS_NOSUID | MS_NOEXEC,
                                "newinstance,ptmxmode=0666,mode=0620") == 0;
    if (isOurs || bindFromHost(hostDev, "pts", "/dev/pts")) {  // or it is a machine without any
        addLink("pts/ptmx", "/dev/ptmx");
    }
}

/// The terminal that we run on belongs to the host's /dev/pts; under this name ttyname() finds it.
void addConsole(int hostDev)
{
    const std::string dev = "/dev/";
    const std::string console = dev + "console";
    std::error_code error;
    const std::string terminal = std::filesystem::read_symlink("/proc/self/fd/0", error).string();
    if (error || ::isatty(STDIN_FILENO) == 0 || terminal.rfind(dev, 0) != 0) {
        return;
    }
    makeFile(console);
    if (!bindFromHost(hostDev, terminal.substr(dev.size()), console)) {
        ::unlink(console.c_str());
    }
}

}  // namespace

void fillDev(int hostDev)
{
    for (const char* name : {"null", "zero", "full", "random", "urandom", "tty", "kmsg", "fuse"}) {
        addNode(hostDev, name);
    }
    addLoopDevices(hostDev);
    addTerminals(hostDev);
    addConsole(hostDev);
    addLink("/proc/self/fd", "/dev/fd");
    addLink("/proc/self/fd/0", "/dev/stdin");
    addLink("/proc/self/fd/1", "/dev/stdout");
    addLink("/proc/self/fd/2", "/dev/stderr");
    addDirectory("/dev/shm");
    mountNew("tmpfs", "/dev/shm", MS_NOSUID | MS_NODEV, "mode=1777");
    addDirectory("/dev/mqueue");
    mountNew("mqueue", "/dev/mqueue", MS_NOSUID | MS_NODEV | MS_NOEXEC);
}

}  // namespace quillon::device
