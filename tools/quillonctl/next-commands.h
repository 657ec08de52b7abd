/// The commands that messages name: those of systemd where it runs, otherwise those of the init
/// script, otherwise those that the script consists of. All are for root's shell.
#pragma once

#include <string>

namespace quillon {

/// Whether systemd manages this system. It may be running elsewhere than here, as around a
/// container.
bool hasSystemd();

std::string startService();
/// It ends in order first: a running update is not cut off.
std::string restartService();
/// Without systemd also one that is stopped or hangs.
std::string restartMountingHelper();

/// What shows the service's log, or where that is: "the service's standard error".
std::string serviceLog();
/// The same for a sentence: "the update service's log (journalctl -b -u quillon)".
std::string namedServiceLog();

/// What shows the log of programs that write with this tag, or where that is: "standard error".
std::string logOf(const char* tag);

}  // namespace quillon
