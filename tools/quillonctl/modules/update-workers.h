/// The threads on which modules are being updated.
#ifndef QUILLON_QUILLONCTL_UPDATE_WORKERS_H
#define QUILLON_QUILLONCTL_UPDATE_WORKERS_H

#include <set>
#include <string>

namespace quillon {

/// The names of this process's threads but the main one's. A module's update runs on a thread that
/// bears its firmware's name, as far as the system keeps it.
std::set<std::string> threadNames();

/// The part of a name that the system keeps for a thread.
std::string asThreadName(const std::string& name);

}  // namespace quillon

#endif
