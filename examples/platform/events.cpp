// An event is a file that appears; whoever waits for one looks for the file.

#include "platform/events.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

int LwipcEventDone(const char* name)
{
    if (name == nullptr || *name != '/') {
        errno = EINVAL;
        return -1;
    }
    // /tmp is everybody's: what lies there already may be somebody's trap, and is made anew.
    if (unlink(name) != 0 && errno != ENOENT) {
        return -1;
    }
    const int file = open(name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    return file == -1 ? -1 : close(file);
}
