#include "package-mounts.h"

#include <libmount.h>
#include <sys/mount.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>

#include "failure.h"
#include "folders.h"
#include "loop-devices.h"

namespace quillon::privileged {

namespace {

bool holds(const UniqueFd& file, off_t offset, std::string_view bytes)
{
    std::array<char, 8> read = {};
    return pread(file.get(), read.data(), bytes.size(), offset) ==
               static_cast<ssize_t>(bytes.size()) &&
           std::memcmp(read.data(), bytes.data(), bytes.size()) == 0;
}

/// The image's own wish may be a panic of the kernel; ours stands above it.
std::string optionsFor(const std::string& type)
{
    return type == "ext4" ? "ro,nodev,nosuid,errors=remount-ro" : "ro,nodev,nosuid";
}

void mountDevice(const LoopDevice& loop, const char* type, const UniqueFd& folder)
{
    const std::unique_ptr<libmnt_context, decltype(&mnt_free_context)> context(mnt_new_context(),
                                                                               &mnt_free_context);
    if (!context) {
        throw Failure(ENOMEM, "out of memory");
    }
    libmnt_context* const mount = context.get();
    // The folder goes to the kernel as it was opened, and nothing but the arguments counts: no
    // fstab, no mount.TYPE program. The "." makes the link in /proc be followed by every call.
    mnt_context_disable_canonicalize(mount, 1);
    mnt_context_disable_helpers(mount, 1);
    mnt_context_disable_mtab(mount, 1);
    mnt_context_set_optsmode(mount, MNT_OMODE_NOTAB);
    if (mnt_context_set_source(mount, loop.node.c_str()) != 0 ||
        mnt_context_set_target(mount, (pathOf(folder) + "/.").c_str()) != 0 ||
        mnt_context_set_fstype(mount, type) != 0 ||
        mnt_context_set_options(mount, optionsFor(type).c_str()) != 0) {
        throw Failure(ENOMEM, "out of memory");
    }
    const int result = mnt_context_mount(mount);
    if (result == 0) {
        return;
    }
    const int error = mnt_context_get_syscall_errno(mount);
    const int code = error > 0 ? error : EINVAL;
    throw Failure(code, std::string("mount ") + type + ": " + std::strerror(code));
}

/// The number under which the mount table lists the mount that a folder lies on.
std::string mountIdOf(const UniqueFd& folder)
{
    std::ifstream info("/proc/self/fdinfo/" + std::to_string(folder.get()));
    std::string word;
    while (info >> word) {
        if (word == "mnt_id:" && info >> word) {
            return word;
        }
    }
    throw Failure(EIO, "/proc does not tell on which mount a folder lies");
}

/// Whether a folder that was opened in kMountFolder is the top of a mount from a loop device.
bool isLoopMount(const UniqueFd& folder, const std::string& name)
{
    const std::string wantedId = mountIdOf(folder);
    const std::string directory = kMountFolder + ("/" + name);
    std::ifstream table("/proc/self/mountinfo");
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        std::string id;
        std::string parent;
        std::string device;
        std::string root;
        std::string point;
        fields >> id >> parent >> device >> root >> point;
        if (id == wantedId) {
            const std::string loop = std::to_string(kLoopMajor) + ":";
            return point == directory && device.compare(0, loop.size(), loop) == 0;
        }
    }
    return false;
}

}  // namespace

const char* typeOfImage(const UniqueFd& image)
{
    if (holds(image, 0, "hsqs")) {
        return "squashfs";
    }
    return holds(image, 1080, "\x53\xef") ? "ext4" : nullptr;
}

void mountPackage(const MountOrder& order)
{
    const UniqueFd image = openImageIn(openFolder(kImageFolder).get(), order.image);
    const UniqueFd folder = openFolderIn(openFolder(kMountFolder).get(), order.directory);
    const char* type = typeOfImage(image);
    if (type == nullptr) {
        throw Failure(EINVAL, order.image + " holds neither squashfs nor ext4");
    }
    if (isLoopMount(folder, order.directory)) {
        throw Failure(EBUSY, order.directory + " has a package mounted already");
    }
    mountDevice(attachLoopDevice(image), type, folder);
}

void unmountPackage(const UnmountOrder& order)
{
    const UniqueFd parent = openFolder(kMountFolder);
    // An open folder keeps its mount busy, so it is closed again before the unmounting; from its
    // fixed parent on, the name leads nowhere else.
    if (!isLoopMount(openFolderIn(parent.get(), order.directory), order.directory)) {
        throw Failure(EINVAL, order.directory + " has nothing mounted from a loop device");
    }
    const std::string path = pathOf(parent) + "/" + order.directory;
    if (umount2(path.c_str(), UMOUNT_NOFOLLOW) != 0) {
        failWithErrno("umount " + order.directory);
    }
}

}  // namespace quillon::privileged
