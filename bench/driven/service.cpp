#include "driven/service.h"

#include <time.h>

#include <chrono>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "process/device.h"

namespace quillon::bench {
namespace {

using std::chrono::steady_clock;

/// Seldom enough to leave the processor to the update.
constexpr std::chrono::milliseconds kBetweenQuestions(5);
constexpr std::uint64_t kKibibyte = 1024;

/// Measures from its making.
class Stopwatch
{
public:
    explicit Stopwatch(pid_t process)
        : process_(process), cpu_(cpuSecondsOf(process)), started_(steady_clock::now())
    {
    }
    Taken taken() const
    {
        const std::chrono::duration<double> wall = steady_clock::now() - started_;
        return {wall.count(), cpuSecondsOf(process_) - cpu_};
    }

private:
    pid_t process_;
    double cpu_;
    steady_clock::time_point started_;
};

}  // namespace

double cpuSecondsOf(pid_t process)
{
    clockid_t clock = 0;
    timespec time = {};
    const int error = clock_getcpuclockid(process, &clock);
    if (error != 0 || clock_gettime(clock, &time) != 0) {
        throw std::runtime_error("the service's processor time cannot be read");
    }
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

Service::Service(const std::string& buildFolder)
{
    forgetEarlierService();
    process_ = std::make_unique<StartedProcess>(
        std::vector<std::string>{buildFolder + "/bin/quillon-service"}, socket_);
    process_->waitUntilReady();
    channel_ = std::make_unique<RecordChannel>(FW_MQ_SERVICE_QUEUE, FW_MQ_CONTROL_QUEUE);
}

void Service::useStick(const std::string& folder)
{
    if (channel_->ask(MQ_COMMAND_PATH, folder).result != MQ_RESULT_ACCEPTED) {
        throw std::runtime_error("the service does not take the path " + folder);
    }
}

Taken Service::estimate()
{
    const Stopwatch watch(pid());
    if (channel_->ask(MQ_COMMAND_TIME).result != MQ_RESULT_ACCEPTED) {
        throw std::runtime_error("the service finds no image that is needed");
    }
    return watch.taken();
}

Taken Service::update()
{
    const Stopwatch watch(pid());
    if (channel_->ask(MQ_COMMAND_START).result != MQ_RESULT_ACCEPTED) {
        throw std::runtime_error("the service does not start the update");
    }
    for (;;) {
        const int32_t state = channel_->ask(MQ_COMMAND_PROGRESS).result;
        if (state == MQ_RESULT_DONE) {
            return watch.taken();
        }
        if (state != MQ_RESULT_RUNNING) {
            throw std::runtime_error("the update failed");
        }
        std::this_thread::sleep_for(kBetweenQuestions);
    }
}

std::uint64_t Service::peakMemory() const
{
    std::ifstream status("/proc/" + std::to_string(pid()) + "/status");
    for (std::string name; status >> name;) {
        std::uint64_t kibibytes = 0;
        if (name == "VmHWM:" && status >> kibibytes) {
            return kibibytes * kKibibyte;
        }
    }
    throw std::runtime_error("the service's memory cannot be read");
}

}  // namespace quillon::bench
