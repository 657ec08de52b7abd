#ifndef QUILLON_BENCH_PROCESS_DEVICE_H
#define QUILLON_BENCH_PROCESS_DEVICE_H

#include <string>

/// The virtual device in which the service is measured, from within. All of this works at the
/// service's real paths and is refused outside of `quillon-device run`.
/// Everything throws std::runtime_error, or what it derives from, when it cannot be done.
namespace quillon::bench {

/// Brings the device to where the service finds all that it needs to start: the markers of a
/// boot and an image key.
void bootDevice();

/// @return "module0001" and so on: what installModules() calls them, and the firmware's name that
///         they make of it.
std::string moduleName(int number);

/// Fills the plug-in folder with copies of one module, "module0001" and so on, and nothing else.
/// @param module  a module that takes its identifier from its library name
void installModules(const std::string& module, int count);

/// Removes what an earlier service that was killed has left: its queues, its semaphore and its
/// readiness event. The next one then starts as after a boot.
void forgetEarlierService();

}  // namespace quillon::bench

#endif
