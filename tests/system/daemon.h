#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "support/wait.h"

namespace quillon::test {

constexpr const char* kLabellingReady = "/tmp/smack_early_ready";
constexpr const char* kLifeMarker = "/tmp/fw_update_ready_usb";
constexpr const char* kReadyEvent = "/tmp/.fw_service_ready_usb";

/// The lines of a file that contain a text, all for an empty one; none when there is no such file.
std::vector<std::string> linesOf(const std::string& path, const std::string& text);

/// The real service as a child process on this test's device.
///
/// Each start has its own log file, which receives all that the process writes. A sanitizer's
/// report in it fails the running test, whatever the process's exit status. Not for use by two
/// threads.
class Daemon
{
public:
    Daemon() = default;
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    /// Starts the process; the readiness event of an earlier one is removed first, the life marker
    /// is put in place.
    /// @param mask  the umask that the process inherits
    void start(mode_t mask = 022);

    /// @return whether the readiness event came, while the process runs.
    bool becomesReady(std::chrono::milliseconds timeout = std::chrono::seconds(30));

    /// start(), and a failed test when it does not become ready.
    void startAndWait();

    /// Takes the life marker away, which the service looks for every 10 s, and waits for the end.
    /// @return as waitForEnd()
    std::optional<int> stop();

    /// @return the exit status, -N when signal N killed it, nothing when it still runs after the
    ///         time-out.
    std::optional<int> waitForEnd(std::chrono::milliseconds timeout);

    /// SIGSTOP, and waits until every thread has stopped.
    /// @return whether they did
    bool freeze();

    /// SIGKILL, and waits for the end. Does nothing when no process runs.
    void kill();

    /// Ends a running process as the build wants it: in order where a sanitizer reports leaks at
    /// the end, otherwise at once. An end in order with another status than 0 fails the test.
    void end();

    bool isRunning();
    pid_t pid() const { return pid_; }

    /// All lines that the process has written since its start.
    std::vector<std::string> log() const;

    /// The log lines that contain a text.
    std::vector<std::string> logLinesWith(const std::string& text) const;

    /// @return whether a line with this text is in the log, or comes within the time-out.
    bool logs(const std::string& text, std::chrono::milliseconds timeout = kPatience) const;

    std::size_t openDescriptors() const;
    std::size_t threads() const;
    std::size_t residentKilobytes() const;

private:
    void requireNoSanitizerReport() const;

    pid_t pid_ = -1;
    int starts_ = 0;
    std::string logPath_;
    std::optional<int> status_;
};

}  // namespace quillon::test
