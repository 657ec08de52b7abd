/// Runs the real quillonctl.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "base/fd.h"

struct CtlResult
{
    int exitCode = -1;  ///< -1 when it was ended by a signal
    std::string out;
    std::string err;
};

/// One run of the program with its outputs in pipes. Starts in the constructor.
class CtlProgram
{
public:
    /// @param user  whom it runs as; taken by root alone
    explicit CtlProgram(const std::vector<std::string>& arguments, uid_t user = 0);
    ~CtlProgram();
    CtlProgram(const CtlProgram&) = delete;
    CtlProgram& operator=(const CtlProgram&) = delete;

    void sendSignal(int number) const;
    /// Reads what it writes until it ends.
    CtlResult finish();

private:
    pid_t pid_ = -1;
    int out_ = -1;
    int err_ = -1;
};

/// The program, as what it writes to standard output arrives nowhere: the pipe is full. It is
/// killed at the end.
class UnreadCtl
{
public:
    explicit UnreadCtl(const std::vector<std::string>& arguments);
    ~UnreadCtl();
    UnreadCtl(const UnreadCtl&) = delete;
    UnreadCtl& operator=(const UnreadCtl&) = delete;

    pid_t process() const { return pid_; }
    bool isAlive() const;
    /// Reads on. @return what it writes until it ends
    std::string read();

private:
    quillon::UniqueFd reader_;
    quillon::UniqueFd writer_;
    pid_t pid_ = -1;
};

/// Runs the program to its end with its outputs in pipes.
CtlResult runCtl(const std::vector<std::string>& arguments, uid_t user = 0);

/// Opens the way to the program on a private device of root's.
/// @return whether that user can run it
bool canRunCtlAs(uid_t user);

/// Runs the program to its end on a terminal of its own.
/// @param terminal  what TERM is set to
/// @return everything that arrived at the terminal in `out`
CtlResult runCtlOnTerminal(const std::vector<std::string>& arguments, unsigned short columns,
                           const char* terminal = "xterm");
