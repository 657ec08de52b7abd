#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/protocols/mount-protocol.h"

namespace quillon::test {

constexpr const char* kPackageDirectory = "/opt/usr/apps/appbinarymanager/";
constexpr const char* kMountDirectory = "/opt/usr/apps/appbinarymanager/emps/";

/// The real quillon-privileged as a child process. Its standard error goes to a file.
class Helper
{
public:
    ~Helper();
    Helper() = default;
    Helper(const Helper&) = delete;
    Helper& operator=(const Helper&) = delete;

    /// Starts it.
    /// @param prepare  runs in the new process before the program does
    void start(
        const std::vector<std::string>& options = {}, const std::function<void()>& prepare = [] {});

    /// start(), and a failed test when it does not serve.
    void startAndWait(const std::vector<std::string>& options = {});

    /// Waits for the end. @return the exit status, or minus the signal that killed it
    int wait();
    /// SIGTERM, then wait().
    int end();
    /// Has it do nothing, or go on: SIGSTOP, SIGCONT.
    void send(int signal) const { ::kill(pid_, signal); }

    /// All that it has written to standard error.
    std::string log() const;

private:
    pid_t pid_ = -1;
    std::string logPath_;
};

/// What a PS_ call has returned and written.
struct Outcome
{
    int returned = -5;
    int result = -5;
    bool operator==(const Outcome& other) const
    {
        return returned == other.returned && result == other.result;
    }
};
std::ostream& operator<<(std::ostream& out, const Outcome& outcome);

constexpr Outcome kDone = {0, 0};
constexpr Outcome answered(int result)
{
    return {0, result};
}

/// Requests as the service makes them, through the platform library.
Outcome mountPackage(const std::string& name, const std::string& directory);
Outcome mountPackage(const std::string& name);
Outcome unmountPackage(const std::string& directory);
Outcome makeLoopNode(unsigned number);

/// One request over a connection of its own, whatever is in it.
/// @return the answer's result; nothing when there was none
std::optional<int> askBare(privileged::Kind kind, const std::string& text);

/// Runs `body` in a child process as another user.
/// @param groups  the first is the primary one, the others are supplementary ones
/// @return what `body` returned, 0 to 255
int asUser(uid_t user, const std::vector<gid_t>& groups, const std::function<int()>& body);

/// A device of root's with packages in it. The helper does not run yet.
class PrivilegedHelper : public testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;

    /// Makes a package with a file "name" in it that holds `content`, and its mount point.
    static void addSquashfs(const std::string& name, const std::string& content = "");
    static void addExt4(const std::string& name, const std::string& content = "");

    /// What the file "name" of a mounted package holds; empty when nothing is mounted.
    static std::string contentOf(const std::string& directory);

    /// A name that no other device on this machine uses for its packages.
    static std::string unique(const std::string& name);

    static std::string imageOf(const std::string& name);
    static std::string mountPointOf(const std::string& name);

    /// The lines of /proc/mounts, or those with a text.
    static std::vector<std::string> mounts(const std::string& text = "");

    /// How many loop devices of the machine show a file with this name.
    static std::size_t loopDevicesOf(const std::string& name);

    static void run(const std::string& command);

    Helper helper;
};

/// Cases that really mount; skipped where this machine does not let root mount loop devices.
class PackageMount : public PrivilegedHelper
{
protected:
    void SetUp() override;
};

}  // namespace quillon::test
