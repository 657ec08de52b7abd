#ifndef QUILLON_TOOLS_QUILLON_DEVICE_INIT_H
#define QUILLON_TOOLS_QUILLON_DEVICE_INIT_H

#include <csignal>
#include <string>
#include <vector>

#include <sys/types.h>

namespace quillon::device {

constexpr int kNoDevice = 125;
constexpr int kNotRunnable = 126;
constexpr int kNotFound = 127;

/// What is run inside a device.
struct Command
{
    std::vector<std::string> arguments;  ///< the program, looked up in PATH, and its arguments
    bool fixedAddresses = false;         ///< switch address space randomisation off
    sigset_t signalMask = {};            ///< the mask that the command starts with
};

/// Blocks the signals that waitFor() passes on, and makes children waitable.
/// @return the mask before
sigset_t takeSignals();

/// Starts the command as a child.
///
/// @param way          becomes the value of QUILLON_DEVICE
/// @param dieWithMe    the child is killed when the caller dies
/// @param[out] status  126 or 127 when there is no child, with one line on standard error
/// @return the child, or -1
pid_t startCommand(const Command& command, const char* way, bool dieWithMe, int& status);

/// Waits for the end of `child`, passing on to it each signal that was sent to the caller, and
/// reaping whatever else ends meanwhile. Signals of a terminal are not passed on: the child has
/// received them itself. Needs takeSignals() before.
/// @return its exit status, or 128 + the signal that killed it
int waitFor(pid_t child);

/// Takes the terminal back at the end of its life if a shell in the device has left it to another
/// process group.
class TerminalKeeper
{
public:
    TerminalKeeper();
    ~TerminalKeeper();
    TerminalKeeper(const TerminalKeeper&) = delete;
    TerminalKeeper& operator=(const TerminalKeeper&) = delete;

private:
    bool wasOurs_;
};

}  // namespace quillon::device

#endif  // QUILLON_TOOLS_QUILLON_DEVICE_INIT_H
