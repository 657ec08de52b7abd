#pragma once

#include <sys/types.h>

#include <functional>

/// Waits until all other threads of this process sleep, then forks a child that ends in order, as
/// that of a module whose exec has failed does.
/// @return whether the child has come to its end; it is killed when it does not
bool forkedChildEnds();

/// A process beside the test's own. It has to be started before this one has threads.
class OtherProcess
{
public:
    /// @param work  what the process does after the first goOn(); it ends in order, and the result
    ///              is its exit status
    using Work = std::function<int(OtherProcess& self)>;

    explicit OtherProcess(const Work& work);
    ~OtherProcess();
    OtherProcess(const OtherProcess&) = delete;
    OtherProcess& operator=(const OtherProcess&) = delete;

    /// Lets the process begin, or leave waitForWord().
    void goOn();
    /// @return the exit status; -1 when it did not end in order
    int waitForEnd();
    void killNow();

    /// For the process itself.
    void waitForWord();

private:
    int pipe_[2] = {-1, -1};
    pid_t child_ = -1;
};
