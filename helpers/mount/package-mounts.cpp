#include "helpers/mount/package-mounts.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <string>

#include "base/fd.h"
#include "helpers/mount/loop-devices.h"
#include "helpers/shared/failure.h"

namespace quillon::privileged {

namespace {

/// A path that names the open file itself, whatever becomes of its name.
std::string pathOf(const UniqueFd& file)
{
    return "/proc/self/fd/" + std::to_string(file.get());
}

/// Opens the directory of that name, without "/", as O_PATH. A link is refused with ENOTDIR.
UniqueFd openDirectoryIn(int parent, const std::string& name)
{
    UniqueFd directory(openat(parent, name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!directory) {
        failWithErrno("directory " + name);
    }
    return directory;
}

/// The same for an absolute path without "." and "..": no link is followed anywhere on the way.
/// What is mounted on the way, or on the directory itself, is entered.
UniqueFd openDirectory(const std::string& path)
{
    // Name by name, since one open() would follow the links on the way. openat2() could refuse
    // them, yet the C library has no call for it, and a link would be no ENOTDIR.
    UniqueFd directory = openDirectoryIn(AT_FDCWD, "/");
    for (std::size_t start = 1; start < path.size();) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        directory = openDirectoryIn(directory.get(), path.substr(start, end - start));
        start = end + 1;
    }
    return directory;
}

/// Opens a regular file with a single name for reading and leaves anything else untouched: a link,
/// a device or a FIFO is refused with EINVAL, a hard link with EMLINK, a file on which somebody
/// holds a write lease with EWOULDBLOCK.
UniqueFd openImageIn(int parent, const std::string& name)
{
    // O_PATH looks without opening: a device or a FIFO does not notice.
    const UniqueFd found(openat(parent, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat status = {};
    if (!found || fstat(found.get(), &status) != 0) {
        failWithErrno(name);
    }
    if (!S_ISREG(status.st_mode)) {
        throw Failure(EINVAL, name + " is not a regular file");
    }
    if (status.st_nlink != 1) {
        throw Failure(EMLINK, name + " has a second name, maybe outside of the package directory");
    }
    // O_NONBLOCK, since a lease that somebody holds on the file would have us wait for its end.
    UniqueFd image(open(pathOf(found).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!image) {
        failWithErrno(name);
    }
    return image;
}

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
