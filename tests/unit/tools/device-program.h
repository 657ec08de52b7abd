#ifndef QUILLON_TESTS_UNIT_TOOLS_DEVICE_PROGRAM_H
#define QUILLON_TESTS_UNIT_TOOLS_DEVICE_PROGRAM_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace quillon::test {

using Words = std::vector<std::string>;

/// The quillon-device program under test.
std::string deviceProgram();

/// A program that has been started with its standard output and error collected; killed, if it
/// still runs, at the end of the object's life.
class Process
{
public:
    /// Starts `words`, the first of which is a path or looked up in PATH.
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

    /// Waits until its output contains `text`. @return false after ten seconds without it
    bool says(const std::string& text) const;

private:
    pid_t pid_ = -1;
    int out_ = -1;
    int err_ = -1;
};

/// What a finished program has left.
struct Result
{
    int status;
    std::string out;
    std::string err;
};

/// Runs `words` to its end.
Result run(const Words& words);

/// Runs quillon-device with these arguments to its end.
Result runDevice(const Words& arguments);

/// Runs a shell script in a device; `options` come before it.
Result runScript(const std::string& script, const Words& options = {});

/// Whether this machine allows a private device, by this way ("auto" for any but in place).
bool hasPrivateDevice(const std::string& way = "auto");

/// How many processes have this word in their command line.
int processesWith(const std::string& word);

/// Waits until no process has this word in its command line. @return false after ten seconds
bool vanish(const std::string& word);

/// A word that no other process on the machine bears.
std::string uniqueWord();

}  // namespace quillon::test

#endif  // QUILLON_TESTS_UNIT_TOOLS_DEVICE_PROGRAM_H
