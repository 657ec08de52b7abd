#include "helpers/mount/listening-socket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include "base/replace-file.h"
#include "helpers/shared/failure.h"

namespace quillon::privileged {

namespace {

constexpr int kWaitingConnections = 32;

sockaddr_un addressOf(const std::string& path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        throw Failure(ENAMETOOLONG, path + ": too long for a socket");
    }
    path.copy(address.sun_path, path.size());
    return address;
}

const sockaddr* generic(const sockaddr_un& address)
{
    return reinterpret_cast<const sockaddr*>(&address);
}

UniqueFd newSocket()
{
    UniqueFd made(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!made) {
        failWithErrno("socket");
    }
    return made;
}

void removeStale(const std::string& path, const sockaddr_un& address)
{
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0) {
        return;
    }
    if (!S_ISSOCK(status.st_mode)) {
        throw Failure(EEXIST, path + " exists and is not a socket");
    }
    if (connect(newSocket().get(), generic(address), sizeof address) == 0 ||
        errno != ECONNREFUSED) {
        throw Failure(EADDRINUSE, path + ": another helper listens there");
    }
    if (unlink(path.c_str()) != 0) {
        failWithErrno(path);
    }
}

/// By descriptor: where others may write the directory, the name may lead to another file by now.
struct stat giveAway(const std::string& path, const Callers& callers)
{
    const UniqueFd node(open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat status = {};
    if (!node || fstat(node.get(), &status) != 0) {
        failWithErrno(path);
    }
    if (!S_ISSOCK(status.st_mode)) {
        throw Failure(EEXIST, path + " is not the socket any more");
    }
    if (fchownat(node.get(), "", callers.user.value_or(0), callers.group.value_or(0),
                 AT_EMPTY_PATH) != 0) {
        failWithErrno(path);
    }
    return status;
}

/// Keeps a second helper that starts now from taking our new socket for a stale one. In a file that
/// others cannot open, so that they cannot hold it. It stays when the lock is given back: a helper
/// that waits for it has it open.
UniqueFd lockOf(const std::string& socketPath)
{
    const std::string directory = socketPath.substr(0, socketPath.rfind('/'));
    if (!makeDirectories(directory, 0755)) {
        failWithErrno(directory);
    }
    const std::string path = socketPath + ".lock";
    UniqueFd lock(open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
    struct stat status = {};
    if (!lock || fstat(lock.get(), &status) != 0) {
        failWithErrno(path);
    }
    if (!S_ISREG(status.st_mode) || status.st_uid != geteuid() || (status.st_mode & 0077U) != 0) {
        throw Failure(EEXIST, path + " is no file for its owner alone; remove it");
    }
    if (uninterrupted([&] { return flock(lock.get(), LOCK_EX); }) != 0) {
        failWithErrno(path);
    }
    return lock;
}

}  // namespace

UniqueFd inheritedSocket()
{
    const int count = sd_listen_fds(0);
    if (count == 0) {
        return UniqueFd();
    }
    if (count != 1 || sd_is_socket(SD_LISTEN_FDS_START, AF_UNIX, SOCK_SEQPACKET, 1) <= 0) {
        throw Failure(EINVAL, "what was handed over is not one listening SOCK_SEQPACKET socket");
    }
    UniqueFd inherited(SD_LISTEN_FDS_START);
    const int flags = fcntl(inherited.get(), F_GETFL);
    if (flags < 0 || fcntl(inherited.get(), F_SETFL, flags | O_NONBLOCK) != 0) {
        failWithErrno("the socket that was handed over");
    }
    return inherited;
}

OwnSocket::OwnSocket(const std::string& path, const Callers& callers)
    : path_(path), socket_(newSocket())
{
    const sockaddr_un address = addressOf(path);
    const UniqueFd lock = lockOf(path);
    removeStale(path, address);
    const mode_t callersMask = umask(0117);
    const int bound = bind(socket_.get(), generic(address), sizeof address);
    umask(callersMask);
    if (bound != 0) {
        failWithErrno(path);
    }
    const struct stat status = giveAway(path, callers);
    if (listen(socket_.get(), kWaitingConnections) != 0) {
        failWithErrno(path);
    }
    device_ = status.st_dev;
    inode_ = status.st_ino;
}

OwnSocket::~OwnSocket()
{
    struct stat status = {};
    if (lstat(path_.c_str(), &status) == 0 && status.st_dev == device_ && status.st_ino == inode_) {
        unlink(path_.c_str());
    }
}

}  // namespace quillon::privileged
