/// Modules that end the program, which is not theirs.
#pragma once

#include <functional>
#include <string>

namespace quillon {

/// From now on an exit() or _exit() that is not the program's own calls `onEnd`, on the thread that
/// made it, before anything that was left to be done at the program's end; `onEnd` must end the
/// process; where it does not within five seconds, the process ends with kExitUpdateFailed or
/// kExitUnusableModule. A crash gives the update semaphore back, says so, and stays a crash; what
/// another process sends is none while signals are held off. Neither concerns the processes that a
/// module forks. Without `onCrash`, memory that is used up is an end with kExitSystem, or with
/// kExitUpdateFailed while signals are held off, and says so. A system call that ends the process
/// goes unnoticed.
///
/// To be called once, after the registry's only object was made and before a module is loaded.
/// Throws std::system_error when no thread can be started.
/// @param onEnd    gets which module it was, empty when that cannot be told
/// @param onCrash  called in the signal's handler, before it is known which module it was, with an
///                 empty name, and once more with what could be told; null for nobody
void watchForForeignEnd(std::function<void(const std::string& libName)> onEnd,
                        void (*onCrash)(int signal, const char* libName) = nullptr);

/// What ends the process from now on is the program's own; where a module keeps it from ending, it
/// ends with that code five seconds later. Does not return when a module is ending it already.
void endIsOurs(int code);

/// Ends the process with that code at once if endIsOurs() was called. Safe in a signal handler.
void endIfOurs();

/// Keeps the calling thread until another one ends the process.
[[noreturn]] void waitForTheEnd();

/// Ends the process as the system's _exit() does. Safe in a signal handler.
[[noreturn]] void endAtOnce(int code);

/// A crash of this thread is noticed also when its stack is used up. To be called on it.
void bearStackOverflow();

}  // namespace quillon
