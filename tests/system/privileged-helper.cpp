#include "system/privileged-helper.h"

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "platform/privileged.h"
#include "support/files.h"
#include "support/process.h"
#include "system/daemon.h"

namespace fs = std::filesystem;

namespace quillon::test {

namespace {

constexpr const char* kLogDirectory = "/var/lib/quillon/privileged-test/";
constexpr int kBufferSize = 1024;

/// @return a connection to the helper, -1 when there is none
int connectToHelper()
{
    const int connection = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, QUILLON_PRIVILEGED_SOCKET);
    if (::connect(connection, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
        return connection;
    }
    ::close(connection);
    return -1;
}

std::string oneFileDirectory(const std::string& name, const std::string& content)
{
    const std::string directory = std::string(kLogDirectory) + "content-" + name;
    fs::create_directories(directory);
    std::ofstream(directory + "/name") << (content.empty() ? name : content);
    return directory;
}

/// Asks the machine, not the helper. @return why not; empty when it can
std::string whyNoLoopMounts()
{
    if (!succeeds("command -v mksquashfs") || !succeeds("command -v mke2fs")) {
        return "mksquashfs or mke2fs is missing";
    }
    const std::string place = std::string(kLogDirectory) + "probe";
    const std::string image = place + ".img";
    fs::create_directories(place);
    if (!succeeds("mksquashfs " + place + " " + image + " -quiet")) {
        return "mksquashfs failed";
    }
    // More than once, since the machine's loop devices are shared with the tests that run beside.
    for (int attempt = 0; attempt < 20; ++attempt) {
        if (succeeds("mount -o ro,loop " + image + " " + place)) {
            return succeeds("umount " + place) ? "" : "the probe could not be unmounted";
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return "this machine does not let us mount a loop device here";
}

}  // namespace

Helper::~Helper()
{
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
}

void Helper::start(const std::vector<std::string>& options, const std::function<void()>& prepare)
{
    static int starts = 0;
    ASSERT_EQ(pid_, -1) << "it runs already";
    fs::create_directories(kLogDirectory);
    logPath_ = kLogDirectory + std::to_string(++starts) + ".log";
    pid_ = ::fork();
    ASSERT_NE(pid_, -1);
    if (pid_ > 0) {
        return;
    }
    ::unsetenv("JOURNAL_STREAM");
    ::dup2(::open(logPath_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600), 2);
    prepare();
    std::vector<char*> arguments = {const_cast<char*>(QUILLON_PRIVILEGED_PROGRAM)};
    for (const std::string& option : options) {
        arguments.push_back(const_cast<char*>(option.c_str()));
    }
    arguments.push_back(nullptr);
    ::execv(QUILLON_PRIVILEGED_PROGRAM, arguments.data());
    ::_exit(127);
}

void Helper::startAndWait(const std::vector<std::string>& options)
{
    start(options);
    ASSERT_TRUE(eventually([&] { return log().find("> ready") != std::string::npos; })) << log();
}

int Helper::wait()
{
    int status = 0;
    const bool ended = eventually([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; });
    EXPECT_TRUE(ended) << log();
    if (!ended) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, &status, 0);
    }
    pid_ = -1;
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

int Helper::end()
{
    ::kill(pid_, SIGTERM);
    return wait();
}

std::string Helper::log() const
{
    return readAll(logPath_);
}

std::ostream& operator<<(std::ostream& out, const Outcome& outcome)
{
    return out << "returned " << outcome.returned << ", result " << outcome.result << " ("
               << std::strerror(outcome.result) << ")";
}

Outcome mountPackage(const std::string& name, const std::string& directory)
{
    Outcome outcome;
    char request[kBufferSize] = {};
    const std::string text = "-o ro,loop,nodev,nosuid " + std::string(kPackageDirectory) + name +
                             ".img " + kMountDirectory + directory;
    text.copy(request, sizeof request - 1);
    outcome.returned = PS_Mount(request, kBufferSize, 0, &outcome.result);
    return outcome;
}

Outcome mountPackage(const std::string& name)
{
    return mountPackage(name, name);
}

Outcome unmountPackage(const std::string& directory)
{
    Outcome outcome;
    const std::string path = kMountDirectory + directory;
    outcome.returned = PS_Umount(path.c_str(), static_cast<int>(path.size()), 0, &outcome.result);
    return outcome;
}

Outcome makeLoopNode(unsigned number)
{
    Outcome outcome;
    char request[kBufferSize] = {};
    const std::string digits = std::to_string(number);
    const std::string text = "-m 0660 -Z * /dev/loop" + digits + "  b 7 " + digits;
    text.copy(request, sizeof request - 1);
    outcome.returned = PS_Mknod(request, kBufferSize, 0, &outcome.result);
    return outcome;
}

std::optional<int> askBare(privileged::Kind kind, const std::string& text)
{
    const int connection = connectToHelper();
    privileged::Request request;
    request.kind = kind;
    text.copy(request.text, privileged::kTextSize - 1);
    privileged::Answer answer;
    const bool isAnswered =
        connection >= 0 && ::send(connection, &request, sizeof request, MSG_NOSIGNAL) > 0 &&
        ::recv(connection, &answer, sizeof answer, 0) == static_cast<ssize_t>(sizeof answer);
    ::close(connection);
    return isAnswered ? std::optional(answer.result) : std::nullopt;
}

int asUser(uid_t user, const std::vector<gid_t>& groups, const std::function<int()>& body)
{
    return inChildAs(user, groups.front(), {groups.begin() + 1, groups.end()}, body);
}

void PrivilegedHelper::SetUp()
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "the helper needs root";
    }
    fs::create_directories(kMountDirectory);
    fs::create_directories(kLogDirectory);
}

void PrivilegedHelper::TearDown()
{
    for (const std::string& line : mounts(kMountDirectory)) {
        const std::size_t start = line.find(' ') + 1;
        ::umount2(line.substr(start, line.find(' ', start) - start).c_str(), MNT_DETACH);
    }
}

void PrivilegedHelper::addSquashfs(const std::string& name, const std::string& content)
{
    fs::create_directories(mountPointOf(name));
    run("mksquashfs " + oneFileDirectory(name, content) + " " + imageOf(name) +
        " -noappend -quiet");
}

void PrivilegedHelper::addExt4(const std::string& name, const std::string& content)
{
    fs::create_directories(mountPointOf(name));
    run("mke2fs -q -F -t ext4 -d " + oneFileDirectory(name, content) + " " + imageOf(name) + " 2M");
}

std::string PrivilegedHelper::contentOf(const std::string& directory)
{
    return readAll(mountPointOf(directory) + "/name");
}

std::string PrivilegedHelper::unique(const std::string& name)
{
    static const unsigned number = std::random_device()();
    return name + std::to_string(number);
}

std::string PrivilegedHelper::imageOf(const std::string& name)
{
    return kPackageDirectory + name + ".img";
}

std::string PrivilegedHelper::mountPointOf(const std::string& name)
{
    return kMountDirectory + name;
}

std::vector<std::string> PrivilegedHelper::mounts(const std::string& text)
{
    return linesOf("/proc/self/mounts", text);
}

std::size_t PrivilegedHelper::loopDevicesOf(const std::string& name)
{
    std::size_t count = 0;
    for (const fs::directory_entry& device : fs::directory_iterator("/sys/block")) {
        const std::string file = readAll(device.path().string() + "/loop/backing_file");
        count += file.find("/" + name + ".img") != std::string::npos ? 1 : 0;
    }
    return count;
}

void PrivilegedHelper::run(const std::string& command)
{
    ASSERT_TRUE(succeeds(command)) << command;
}

void PackageMount::SetUp()
{
    PrivilegedHelper::SetUp();
    if (IsSkipped()) {
        return;
    }
    const std::string reason = whyNoLoopMounts();
    if (!reason.empty()) {
        GTEST_SKIP() << reason;
    }
}

}  // namespace quillon::test
