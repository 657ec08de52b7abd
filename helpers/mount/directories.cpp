#include "helpers/mount/directories.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstddef>

#include "helpers/shared/failure.h"

namespace quillon::privileged {

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

UniqueFd openDirectoryIn(int parent, const std::string& name)
{
    UniqueFd directory(openat(parent, name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!directory) {
        failWithErrno("directory " + name);
    }
    return directory;
}

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

std::string pathOf(const UniqueFd& file)
{
    return "/proc/self/fd/" + std::to_string(file.get());
}

}  // namespace quillon::privileged
