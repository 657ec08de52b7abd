#include "tools/quillon-device/mounts.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "base/fd.h"
#include "tools/quillon-device/device-paths.h"
#include "tools/quillon-device/layers.h"
#include "tools/quillon-device/setup-error.h"

namespace fs = std::filesystem;

namespace quillon::device {

namespace {

constexpr int kPointField = 5;  // after id, parent, device and root
constexpr unsigned kLoopDevices = 16;
constexpr unsigned kLoopMajor = 7;

/// The kernel writes blanks, newlines and backslashes of a name as "\ooo".
std::string unescaped(std::string name)
{
    for (std::size_t at = 0; (at = name.find('\\', at)) != std::string::npos; ++at) {
        name.replace(at, 4, 1, static_cast<char>(std::stoi(name.substr(at + 1, 3), nullptr, 8)));
    }
    return name;
}

void emptyDirectory(const std::string& directory)
{
    std::error_code error;
    fs::create_directories(directory, error);  // it may have been in one that was just emptied
    struct stat info = {};
    require(::stat(directory.c_str(), &info) == 0, directory);
    if (!fs::is_empty(directory, error) || error) {
        mountNew("tmpfs", directory, MS_NOSUID | MS_NODEV);
        require(::chmod(directory.c_str(), info.st_mode & 07777U) == 0, "chmod " + directory);
    }
    require(::access(directory.c_str(), W_OK) == 0, directory);
}

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

/// Fills the new, empty /dev: the usual nodes, loop devices, pseudo-terminals, /dev/shm and
/// /dev/mqueue. A node that the host does not have is left out.
/// @param hostDev  the host's /dev, open; stays the caller's
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

}  // namespace

std::vector<std::string> mountPoints()
{
    std::set<std::string> points;
    std::ifstream table("/proc/self/mountinfo");
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        std::string field;
        for (int number = 1; number <= kPointField; ++number) {
            fields >> field;
        }
        if (fields) {
            points.insert(unescaped(field));
        }
    }
    return {points.begin(), points.end()};
}

void mountNew(const char* type, const std::string& point, unsigned long flags, const char* options)
{
    require(::mount(type, point.c_str(), type, flags, options) == 0,
            std::string("mount ") + type + " on " + point);
}

bool bindTree(const std::string& source, const std::string& target)
{
    return ::mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0;
}

void makeFile(const std::string& path)
{
    const UniqueFd file(::open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC | O_NOCTTY, 0600));
    require(file.get() >= 0, path);
}

void makeReadOnly(const std::string& point)
{
    struct statvfs info = {};
    if (::statvfs(point.c_str(), &info) != 0) {
        return;
    }
    // A user namespace may add read-only, yet not drop a flag that the host has set.
    unsigned long flags = MS_REMOUNT | MS_BIND | MS_RDONLY;
    flags |= info.f_flag & (ST_NOSUID | ST_NODEV | ST_NOEXEC | ST_NOATIME | ST_NODIRATIME);
    if ((info.f_flag & ST_RELATIME) != 0) {
        flags |= MS_RELATIME;
    }
    ::mount(nullptr, point.c_str(), nullptr, flags, nullptr);
}

void makeDirectoryLike(const std::string& path, const std::string& model)
{
    if (::mkdir(path.c_str(), 0755) != 0) {
        require(errno == EEXIST, "mkdir " + path);
        return;
    }
    struct stat info = {};
    if (::stat(model.c_str(), &info) != 0) {
        return;
    }
    if (::chown(path.c_str(), info.st_uid, info.st_gid) != 0) {
        // A user namespace knows one owner only; the directory is then that owner's.
    }
    require(::chmod(path.c_str(), info.st_mode & 07777U) == 0, "chmod " + path);
}

void mountDevice(const std::string& workingDirectory)
{
    const std::string stage = "/dev/.stage";
    require(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0,
            "mount --make-rprivate /");
    const UniqueFd hostDev(::open("/dev", O_PATH | O_DIRECTORY | O_CLOEXEC));
    require(hostDev.get() >= 0, "/dev");
    mountNew("tmpfs", "/dev", MS_NOSUID | MS_NOEXEC, "mode=0755");
    require(::mkdir(stage.c_str(), 0755) == 0, "mkdir " + stage);
    mountNew("tmpfs", stage, MS_NOSUID | MS_NODEV, "mode=0755");
    mountPrivateDirectories(workingDirectory, stage);
    // The overlays hold on to their layers; nobody else needs to see them.
    require(::umount2(stage.c_str(), MNT_DETACH) == 0 && ::rmdir(stage.c_str()) == 0, stage);

    fillDev(hostDev.get());
    // Programs inside see their own process list. Where a container masks parts of its /proc, the
    // kernel forbids a new one in a user namespace; the outer one then stays and serves.
    ::mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr);
    for (const std::string& file : serviceFiles()) {
        require(::unlink(file.c_str()) == 0 || errno == ENOENT, "remove " + file);
    }
    // Not where the directory is the host's own, read-only: an overlay is not to be had everywhere.
    static_cast<void>(::unlink(kHostSealingKey));
    for (const auto& directories : {serviceDirectories(), hostServiceDirectories()}) {
        for (const std::string& directory : directories) {
            emptyDirectory(directory);
        }
    }
    // By path, since the old working directory is the one beneath the overlay.
    require(workingDirectory.empty() || ::chdir(workingDirectory.c_str()) == 0,
            "the working directory " + workingDirectory);
}

}  // namespace quillon::device
