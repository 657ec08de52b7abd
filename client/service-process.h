/// The process behind the queues.
#ifndef QUILLON_CLIENT_SERVICE_PROCESS_H
#define QUILLON_CLIENT_SERVICE_PROCESS_H

#include <sys/types.h>

#include <vector>

namespace quillon {

/// Whose the queues are.
struct QueueOwner
{
    uid_t user;
    gid_t group;
};

/// Notices the end of the service, which leaves its queues behind when it is killed. That is a help
/// and no more: where the process cannot be seen, it is never reported as ended.
class ServiceProcess
{
public:
    ServiceProcess() = default;
    ~ServiceProcess() { forget(); }
    ServiceProcess(const ServiceProcess&) = delete;
    ServiceProcess& operator=(const ServiceProcess&) = delete;

    /// Looks for processes called "quillon-service" in this process's PID namespace. Does nothing
    /// when it has found one before. Finds none where the program has another name, runs in another
    /// namespace, or /proc hides it.
    /// @param queues  whose processes to look for: those of the queues' user; where that is root,
    ///                also those of the life marker's owner, when the queues' group is among their
    ///                supplementary ones
    void find(const QueueOwner& queues);
    void forget();

    /// @return whether one was found and all that were found have ended. One that nobody has waited
    ///         for counts as ended.
    bool hasEnded() const;

private:
    std::vector<int> handles_;  ///< pidfds
};

}  // namespace quillon

#endif
