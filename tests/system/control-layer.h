#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "support/wait.h"
#include "unit/tools/ctl-modules-device.h"

namespace quillon::test {

/// The real control layer in the background, whose words can be waited for. What it writes to
/// standard output and standard error, the platform's log included, goes to one file.
class BackgroundLayer
{
public:
    /// @param onTerminal  gives it a terminal of its own as standard input, output and error
    /// @param ignored     signals that are ignored when it starts
    explicit BackgroundLayer(const std::vector<std::string>& arguments, bool onTerminal = false,
                             const std::vector<int>& ignored = {});
    ~BackgroundLayer();
    BackgroundLayer(const BackgroundLayer&) = delete;
    BackgroundLayer& operator=(const BackgroundLayer&) = delete;

    pid_t process() const { return pid_; }
    std::string output() const;
    /// Waits until it has written that.
    bool says(const std::string& text) const;
    void send(int signal) const;
    /// As a terminal does: to all processes that it has started as well.
    void sendToAll(int signal) const;
    /// Takes its terminal away.
    void hangUp();
    /// @return the exit code, or minus the signal that ended it
    int wait();

private:
    pid_t pid_ = -1;
    int terminal_ = -1;
    std::string path_;
};

/// Whether the module has been asked to do something: the beginning of a call.
bool wasAsked(const std::string& module, const std::string& call);

/// A device whose modules do what the tests need them to, see guided-module.cpp. Version 2.0 is
/// offered to each for an update of 60 s.
class ControlLayer : public CtlModules
{
protected:
    /// @param what  for instance "exit-in-doUpdate"
    static void installGuided(const std::string& name, const std::string& what);

    /// A module whose update goes on until goOn() is called.
    static void installWaiting(const std::string& name);
    static void goOn();
    static bool isFlashing(const std::string& name);
};

/// The value of the update semaphore; -1 when there is none.
int semaphoreValue();

/// Leaves the semaphore behind as a control layer does that is killed in the middle of an update.
void leaveSemaphoreBehind();

/// Runs a line of bash, in which "$CTL" is the program.
/// @return its exit code
int runShell(const std::string& line);

}  // namespace quillon::test
