#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace quillon::test {

/// gdb, attached to the probe quillon:log of a running process, which goes on running.
class Tracer
{
public:
    Tracer() = default;
    ~Tracer() { detach(); }
    Tracer(const Tracer&) = delete;
    Tracer& operator=(const Tracer&) = delete;

    /// Whether gdb is installed on this machine.
    static bool installed();

    /// Attaches and waits until the probe is armed.
    /// @return why the machine does not let gdb do that; empty when it is attached. Anything else
    ///         that keeps it from attaching is a failed test.
    std::string attachTo(pid_t process);

    /// Each time that the probe was hit: its six arguments, separated by "|".
    std::vector<std::string> hits() const;

    /// What gdb knows about the program's probes.
    std::string probes() const;

    /// Leaves the process as it was before. Does nothing when nothing is attached.
    void detach();

private:
    bool runs();
    std::string output() const;

    pid_t pid_ = -1;
};

}  // namespace quillon::test
