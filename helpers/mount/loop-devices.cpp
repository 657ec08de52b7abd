#include "helpers/mount/loop-devices.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>

#include "helpers/mount/mount-log.h"
#include "helpers/mount/policy.h"
#include "helpers/shared/failure.h"

namespace quillon::privileged {

namespace {

/// When every loop device is in use, the kernel gets one more ready. It does not matter which: it
/// is found by its node.
void makeKernelProvideOne()
{
    const UniqueFd control(open("/dev/loop-control", O_RDWR | O_CLOEXEC));
    if (control) {
        ioctl(control.get(), LOOP_CTL_GET_FREE);
    }
}

std::string nodeOf(unsigned number)
{
    return "/dev/loop" + std::to_string(number);
}

/// @return no descriptor for a node that is missing, is no loop device, or has none behind it
UniqueFd openNode(const std::string& node)
{
    UniqueFd device(open(node.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!device && errno != ENOENT && errno != ENXIO && errno != ELOOP) {
        failWithErrno(node);
    }
    struct stat status = {};
    const bool isLoop = device && fstat(device.get(), &status) == 0 && S_ISBLK(status.st_mode) &&
                        major(status.st_rdev) == kLoopMajor;
    return isLoop ? std::move(device) : UniqueFd();
}

}  // namespace

LoopDevice attachLoopDevice(const UniqueFd& image)
{
    makeKernelProvideOne();
    loop_config config = {};
    config.fd = static_cast<std::uint32_t>(image.get());
    config.info.lo_flags = LO_FLAGS_READ_ONLY | LO_FLAGS_AUTOCLEAR;
    for (unsigned number = 0; number < kLoopNodes; ++number) {
        UniqueFd device = openNode(nodeOf(number));
        if (!device) {
            continue;
        }
        if (ioctl(device.get(), LOOP_CONFIGURE, &config) == 0) {
            return {nodeOf(number), std::move(device)};
        }
        if (errno != EBUSY) {
            failWithErrno(nodeOf(number));
        }
    }
    throw Failure(ENODEV, "no node of a free loop device in /dev");
}

void makeLoopNode(unsigned number)
{
    const std::string node = nodeOf(number);
    const mode_t callersMask = umask(0);
    const int made = mknod(node.c_str(), S_IFBLK | 0660, makedev(kLoopMajor, number));
    umask(callersMask);
    if (made != 0) {
        failWithErrno(node);
    }
    if (lsetxattr(node.c_str(), "security.SMACK64", "*", 1, 0) == 0) {
        return;
    }
    if (errno != EOPNOTSUPP) {
        const Failure failure(errno, node + ": label: " + std::strerror(errno));
        unlink(node.c_str());
        throw failure;
    }
    static std::atomic_flag said = ATOMIC_FLAG_INIT;
    if (!said.test_and_set()) {
        PRIVILEGED_LOGI("%s: no label, the kernel knows none there", node.c_str());
    }
}

}  // namespace quillon::privileged
