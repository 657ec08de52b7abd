#pragma once

#include <csignal>
#include <string>
#include <vector>

#include <sys/types.h>

#include "base/fd.h"

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

struct Pipe
{
    UniqueFd in;   ///< to read from
    UniqueFd out;  ///< to write to
};

/// @throws SetupError
Pipe makePipe();

/// Runs the command as a child and waits for its end as waitFor() does.
///
/// @param way        becomes the value of QUILLON_DEVICE
/// @param dieWithMe  the child is killed when the caller dies
/// @return the exit status; 126 or 127 when it cannot be run, with one line on standard error
/// @throws SetupError
int runAsChild(const Command& command, const char* way, bool dieWithMe);

/// Waits for the end of `child`, passing on to it each signal that was sent to the caller, and
/// reaping whatever else ends meanwhile. Signals of a terminal are not passed on: the child has
/// received them itself. Needs takeSignals() before.
/// @return its exit status, or 128 + the signal that killed it
int waitFor(pid_t child);

}  // namespace quillon::device
