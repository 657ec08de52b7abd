#include "tools/quillon-device/mounts.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "base/fd.h"
#include "tools/quillon-device/device-dev.h"
#include "tools/quillon-device/device-paths.h"
#include "tools/quillon-device/layers.h"
#include "tools/quillon-device/setup-error.h"

namespace fs = std::filesystem;

namespace quillon::device {

namespace {

constexpr const char* kStage = "/dev/.stage";

void makeDirectory(const std::string& path)
{
    if (::mkdir(path.c_str(), 0755) != 0) {
        failWithErrno("mkdir " + path);
    }
}

void mountTmpfs(const std::string& point, mode_t mode)
{
    if (::mount("tmpfs", point.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, nullptr) != 0) {
        failWithErrno("mount tmpfs on " + point);
    }
    if (::chmod(point.c_str(), mode) != 0) {
        failWithErrno("chmod " + point);
    }
}

void emptyDirectory(const std::string& directory)
{
    std::error_code error;
    fs::create_directories(directory, error);  // it may have been in one that was just emptied
    struct stat info = {};
    if (::stat(directory.c_str(), &info) != 0) {
        failWithErrno(directory);
    }
    if (!fs::is_empty(directory, error) || error) {
        mountTmpfs(directory, info.st_mode & 07777U);
    }
    if (::access(directory.c_str(), W_OK) != 0) {
        failWithErrno(directory);
    }
}

void removeFile(const std::string& file)
{
    if (::unlink(file.c_str()) != 0 && errno != ENOENT) {
        failWithErrno("remove " + file);
    }
}

/// Programs inside see their own process list. Where a container masks parts of its /proc, the
/// kernel forbids a new one in a user namespace; the outer one then stays and serves.
void mountProc()
{
    ::mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr);
}

}  // namespace

void bindTree(const std::string& source, const std::string& target)
{
    if (::mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
        failWithErrno("bind " + source);
    }
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
    struct stat info = {};
    const bool known = ::stat(model.c_str(), &info) == 0;
    if (::mkdir(path.c_str(), 0755) != 0) {
        if (errno == EEXIST) {
            return;
        }
        failWithErrno("mkdir " + path);
    }
    if (!known) {
        return;
    }
    if (::chown(path.c_str(), info.st_uid, info.st_gid) != 0) {
        // A user namespace knows one owner only; the directory is then that owner's.
    }
    if (::chmod(path.c_str(), info.st_mode & 07777U) != 0) {
        failWithErrno("chmod " + path);
    }
}

void mountDevice(const std::string& workingDirectory)
{
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        failWithErrno("mount --make-rprivate /");
    }
    const UniqueFd hostDev(::open("/dev", O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!hostDev) {
        failWithErrno("/dev");
    }
    if (::mount("tmpfs", "/dev", "tmpfs", MS_NOSUID | MS_NOEXEC, "mode=0755") != 0) {
        failWithErrno("mount tmpfs on /dev");
    }
    makeDirectory(kStage);
    mountTmpfs(kStage, 0755);
    mountPrivateDirectories(workingDirectory, kStage);
    // The overlays hold on to their layers; nobody else needs to see them.
    if (::umount2(kStage, MNT_DETACH) != 0 || ::rmdir(kStage) != 0) {
        failWithErrno(kStage);
    }

    fillDev(hostDev.get());
    mountProc();
    for (const std::string& file : serviceFiles()) {
        removeFile(file);
    }
    // Not where the directory is the host's own, read-only: an overlay is not to be had everywhere.
    static_cast<void>(::unlink(hostSealingKey().c_str()));
    for (const auto& directories : {serviceDirectories(), hostServiceDirectories()}) {
        for (const std::string& directory : directories) {
            emptyDirectory(directory);
        }
    }
}

}  // namespace quillon::device
