/// Other programs and processes, run beside a test.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace quillon::test {

using Words = std::vector<std::string>;

/// What a finished program has left.
struct Result
{
    int status = -1;  ///< its exit status, or minus the signal that killed it
    std::string out;
    std::string err;
};

/// A program that has been started with its standard output and error collected and nothing to
/// read; killed, if it still runs, at the end of the object's life. Not for use by two threads.
class Process
{
public:
    /// Starts `words`, the first of which is a path or looked up in PATH. Signals have their usual
    /// effect in it. Throws std::runtime_error when it cannot be started.
    explicit Process(const Words& words);
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    /// Waits for the end. @return the exit status, or minus the signal that killed it
    int wait();
    void kill(int signal) const;

    /// What it has written so far.
    std::string out() const;
    std::string err() const;

    /// Waits until its output contains `text`. @return false after a minute without it
    bool says(const std::string& text) const;

private:
    pid_t pid_ = -1;
    int out_ = -1;
    int err_ = -1;
};

/// Runs `words` to its end.
Result run(const Words& words);

/// Runs a shell's command to its end.
Result runInShell(const std::string& command);

/// Runs a shell's command. @return whether it ended with status 0; what it wrote is lost
bool succeeds(const std::string& command);

/// Runs a shell's command, and fails the test when it does not end with status 0.
/// @return what it wrote to its standard output
std::string outputOf(const std::string& command);

/// Runs work in a process forked off this one, which then ends at once.
/// @return what work has returned, which must be from 0 to 255; minus the signal that killed it
int inChild(const std::function<int()>& work);

/// As inChild(), as another user; for root alone.
/// @param others  the supplementary groups
/// @return 126 if it cannot become that user
int inChildAs(uid_t user, gid_t group, const std::vector<gid_t>& others,
              const std::function<int()>& work);

/// Waits for the end of a child. @return its exit status, or minus the signal that killed it
int statusOf(pid_t child);

}  // namespace quillon::test
