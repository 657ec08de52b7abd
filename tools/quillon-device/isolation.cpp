#include "tools/quillon-device/isolation.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "base/fd.h"
#include "base/regular-file.h"
#include "base/secret-bytes.h"
#include "tools/quillon-device/device-paths.h"
#include "tools/quillon-device/mounts.h"
#include "tools/quillon-device/setup-error.h"

namespace quillon::device {

namespace {

constexpr const char* kReady = "+";
constexpr std::size_t kLongestReport = 65536;

/// Like fork(), with the child as the first process of new namespaces.
pid_t forkInto(Way way)
{
    const int namespaces = CLONE_NEWNS | CLONE_NEWIPC | CLONE_NEWPID;
    const int flags = SIGCHLD | namespaces | (way == Way::kUser ? CLONE_NEWUSER : 0);
    return static_cast<pid_t>(::syscall(SYS_clone, flags, nullptr, nullptr, nullptr, nullptr));
}

void writeAll(int fd, const std::string& text)
{
    if (::write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        ::_exit(kNoDevice);  // nobody is left to hear it
    }
}

void writeMap(const char* path, const std::string& text)
{
    const UniqueFd file(::open(path, O_WRONLY | O_CLOEXEC));
    require(file.get() >= 0 && ::write(file.get(), text.data(), text.size()) >= 0, path);
}

void becomeRootOfNamespace(uid_t user, gid_t group)
{
    writeMap("/proc/self/setgroups", "deny");
    writeMap("/proc/self/uid_map", "0 " + std::to_string(user) + " 1\n");
    writeMap("/proc/self/gid_map", "0 " + std::to_string(group) + " 1\n");
}

/// The device dies with the process that started it, even if that was killed just now.
void dieWithParent(int report)
{
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    pollfd parent = {report, 0, 0};
    if (::poll(&parent, 1, 0) > 0 && (parent.revents & POLLERR) != 0) {
        ::_exit(kNoDevice);
    }
}

/// The first process of the device.
[[noreturn]] void runInit(Way way, const Command& command, UniqueFd report,
                          const std::string& directory, uid_t user, gid_t group)
{
    int status = 0;
    try {
        dieWithParent(report.get());
        if (way == Way::kUser) {
            becomeRootOfNamespace(user, group);
        }
        mountDevice(directory);
        writeAll(report.get(), kReady);
        report.reset();
        if (!command.arguments.empty()) {
            status = runAsChild(command, nameOf(way), false);
        }
    } catch (const std::exception& error) {
        if (report) {
            writeAll(report.get(), error.what());
        }
        status = kNoDevice;
    }
    ::_exit(status);
}

std::string cloneFailure(int error)
{
    if (error == ENOSPC) {
        return "the limit of namespaces is reached (sysctl user.max_user_namespaces)";
    }
    return std::string("new namespaces: ") + std::strerror(error);
}

}  // namespace

const char* nameOf(Way way)
{
    return way == Way::kRoot ? "root" : "user";
}

std::optional<int> runIsolated(Way way, const Command& command, std::string& reason)
{
    if (way == Way::kRoot && ::geteuid() != 0) {
        reason = "not root";
        return std::nullopt;
    }
    std::error_code ignored;  // the path is empty where there is no working directory
    const std::string directory = std::filesystem::current_path(ignored).string();
    if (staysOutside(directory)) {
        throw SetupError("the working directory " + directory + " would not exist inside");
    }
    Pipe report = makePipe();
    const uid_t user = ::geteuid();
    const gid_t group = ::getegid();
    const pid_t init = forkInto(way);
    if (init < 0) {
        reason = cloneFailure(errno);
        return std::nullopt;
    }
    if (init == 0) {
        report.in.reset();
        runInit(way, command, std::move(report.out), directory, user, group);
    }
    report.out.reset();
    SecretBytes said;
    static_cast<void>(readToEnd(report.in.get(), kLongestReport, said));
    reason.assign(said.begin(), said.end());
    if (reason != kReady) {
        ::waitpid(init, nullptr, 0);
        return std::nullopt;
    }
    return waitFor(init);
}

}  // namespace quillon::device
