/// What signals do while modules are checked and updated.
///
/// SIGINT, SIGTERM, SIGQUIT and SIGHUP ask the program to end. Where nothing is being flashed they
/// end it; what is being flashed is finished first, and no other update is begun. SIGHUP does not
/// even do that once an update has begun: a terminal that goes away changes nothing. Those of the
/// terminal that are ignored when the program starts, as in a script's background, stay ignored.
#pragma once

#include <functional>
#include <system_error>

#include "tools/quillonctl/exit-codes.h"

namespace quillon {

/// From now on the first request clears the flag, for the main thread to see. A plug-in may keep
/// that thread for ever, so half a second later the process ends with kExitInterrupted from another
/// one, unless an update has begun. It ends five seconds later at the latest, also after
/// takeOverTheEnd(). Further requests change nothing, but for one during those five seconds of the
/// main thread, which ends the process at once.
///
/// Throws std::system_error when no thread can be started, see noThread().
/// @param abandon  tidies up before such an end; runs on a thread of its own
void watchForRequests(std::function<void()> abandon);

/// What a verb ends with then.
Failure noThread(const std::system_error& error);

/// The flag, true until then, in the shape that the registry takes it.
bool& runningFlag();
/// Whether the flag has been cleared. Thread: any.
bool isInterrupted();

/// What the keyboard sends (Ctrl-C, Ctrl-backslash) is blocked on this thread from now on, and so
/// in every thread and program that a module starts from it: a thread of a module's own cannot take
/// a request away during an update. To be called after watchForRequests() and before a module is
/// loaded.
void keepKeyboardFromModules();

/// From now on no other signal that can be held off ends or stops the process either.
void holdOffSignals();
/// Whether that was called. Safe in a signal handler.
bool holdsOffSignals();

/// The process ends by the main thread from now on. Does not return when it is ending already.
void takeOverTheEnd();

/// @name The time in which the process must not end
/// @{
/// An update may begin at any moment. Does not return when the process is ending already.
void mayBeginUpdating();
/// It has not begun. Without effect while an earlier one goes on.
void didNotBeginUpdating();
/// An update is about to begin: requests are answered with a line that says what becomes of them.
/// To be called before the thread that updates is started.
/// @return false when there has been a request before: it must not begin, and counts as not begun
bool beginUpdating();
/// That thread flashes from now on.
void updateStarted();
/// That thread could not be started.
void updateDidNotStart();
/// That thread does not flash any more.
void updateEnded();
/// The process may end again when no thread flashes and none is still to start: one that was given
/// up may begin to flash long afterwards.
void endUpdating();
/// @}

}  // namespace quillon
