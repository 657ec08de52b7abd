#ifndef QUILLON_BENCH_DRIVEN_SERVICE_H
#define QUILLON_BENCH_DRIVEN_SERVICE_H

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>

#include "driven/records.h"
#include "process/ready-socket.h"
#include "process/started-process.h"

namespace quillon::bench {

/// What a piece of work took.
struct Taken
{
    double wallSeconds = 0;
    double cpuSeconds = 0;  ///< of the service's process
};

/// A running quillon-service and the control channel to it. Works within a virtual device, one at
/// a time. Everything throws std::runtime_error, or what it derives from.
class Service
{
public:
    /// Starts the service of a build folder and waits until it is ready.
    explicit Service(const std::string& buildFolder);

    /// Names the stick that all that follows is about.
    /// @param folder  ends in "/"; in the life of a service no shorter than the ones before
    void useStick(const std::string& folder);
    /// Asks for the expected duration: every image is verified, deciphered and asked about.
    Taken estimate();
    /// Starts an update and waits for its success, which it asks for every millisecond. The first
    /// one in the life of a service makes an estimate by itself, later ones do not.
    Taken update();

    RecordChannel& channel() { return *channel_; }
    pid_t pid() const { return process_->pid(); }
    /// The most memory that it has ever had resident, in bytes.
    std::uint64_t peakMemory() const;

private:
    ReadySocket socket_;
    std::unique_ptr<StartedProcess> process_;
    std::unique_ptr<RecordChannel> channel_;
};

/// The processor time that a process has taken so far, in seconds.
double cpuSecondsOf(pid_t process);

}  // namespace quillon::bench

#endif
