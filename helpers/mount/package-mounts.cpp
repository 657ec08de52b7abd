#include "helpers/mount/package-mounts.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <string>

#include "helpers/mount/directories.h"
#include "helpers/mount/loop-devices.h"
#include "helpers/shared/failure.h"

namespace quillon::privileged {

namespace {

bool holds(const UniqueFd& file, off_t offset, std::string_view bytes)
{
    std::array<char, 8> read = {};
    return pread(file.get(), read.data(), bytes.size(), offset) ==
               static_cast<ssize_t>(bytes.size()) &&
           std::memcmp(read.data(), bytes.data(), bytes.size()) == 0;
}

/// The type of the file system in an image, by its magic number; "ext4" also for its predecessors.
/// What a stranger's image can do in a driver of the kernel is limited to these two.
/// @return null for any other
const char* typeOfImage(const UniqueFd& image)
{
    if (holds(image, 0, "hsqs")) {
        return "squashfs";
    }
    return holds(image, 1080, "\x53\xef") ? "ext4" : nullptr;
}

/// Nothing of a package may reach the machine beside it: it could name the machine's own files and
/// devices as its images, or bring programs.
constexpr unsigned long kConfined = MS_RDONLY | MS_NODEV | MS_NOSUID | MS_NOEXEC | MS_NOSYMFOLLOW;

/// One call of the kernel's oldest interface, whatever the C library's companions use by now: the
/// unit's filter lets this one pass and no newer one.
void mountDevice(const LoopDevice& loop, const char* type, const UniqueFd& directory)
{
    // The image's own wish may be a panic of the kernel; ours stands above it.
    const char* options = std::strcmp(type, "ext4") == 0 ? "errors=remount-ro" : nullptr;
    // The directory goes to the kernel as it was opened; the "." has the link in /proc followed.
    const std::string target = pathOf(directory) + "/.";
    if (mount(loop.node.c_str(), target.c_str(), type, kConfined, options) != 0) {
        failWithErrno(std::string("mount ") + type);
    }
}

/// Linux before 5.10 takes MS_NOSYMFOLLOW without a word and follows links all the same.
bool followsLinks(const UniqueFd& directory)
{
    constexpr long kNoSymFollow = 0x2000;  // ST_NOSYMFOLLOW, which no C library's header names yet
    struct statfs status = {};
    return fstatfs(directory.get(), &status) != 0 || (status.f_flags & kNoSymFollow) == 0;
}

/// Whether a directory is the top of a mount from a loop device.
bool isLoopMount(const UniqueFd& directory)
{
    struct statx status = {};
    if (statx(directory.get(), "", AT_EMPTY_PATH, STATX_TYPE, &status) != 0) {
        failWithErrno("statx");
    }
    return (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0 &&
           status.stx_dev_major == kLoopMajor;
}

}  // namespace

void mountPackage(const MountOrder& order)
{
    const UniqueFd image = openImageIn(openDirectory(kImageDirectory).get(), order.image);
    const UniqueFd directory =
        openDirectoryIn(openDirectory(kMountDirectory).get(), order.directory);
    const char* type = typeOfImage(image);
    if (type == nullptr) {
        throw Failure(EINVAL, order.image + " holds neither squashfs nor ext4");
    }
    if (isLoopMount(directory)) {
        throw Failure(EBUSY, order.directory + " has a package mounted already");
    }
    mountDevice(attachLoopDevice(image), type, directory);
    if (followsLinks(openDirectoryIn(openDirectory(kMountDirectory).get(), order.directory))) {
        unmountPackage(order.directory);
        throw Failure(ENOTSUP, "links in packages would be followed, Linux 5.10 is needed");
    }
}

void unmountPackage(const std::string& directory)
{
    const UniqueFd parent = openDirectory(kMountDirectory);
    // An open directory keeps its mount busy, so it is closed again before the unmounting; from its
    // fixed parent on, the name leads nowhere else.
    if (!isLoopMount(openDirectoryIn(parent.get(), directory))) {
        throw Failure(EINVAL, directory + " has nothing mounted from a loop device");
    }
    const std::string path = pathOf(parent) + "/" + directory;
    if (umount2(path.c_str(), UMOUNT_NOFOLLOW) != 0) {
        failWithErrno("umount " + directory);
    }
}

}  // namespace quillon::privileged
