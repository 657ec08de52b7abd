/// A process of its own for each clause, so that a crash or a hang is a finding.
#pragma once

#include <chrono>
#include <string>

#include "tools/quillon-module/clause.h"

namespace quillon::kit {

/// The word before the arguments with which this program executes itself.
constexpr const char* kProcessWord = "run-clause";

struct Outcome
{
    Judgement judgement;
    std::chrono::milliseconds duration{};
    std::string output;  ///< what the module has written, at most 64 KiB
};

/// Judges a clause in a new process, which is killed with what it has started when the module does
/// not answer in time. A request to end the program (SIGINT and the like) ends it too, and then the
/// program. Throws Failure when no process can be started.
Outcome judgeApart(const Clause& clause, const Subject& subject);

/// Judges a clause in this process, for a debugger.
Outcome judgeHere(const Clause& clause, const Subject& subject);

/// The new process's main. Does not return to exit handlers.
/// @param argc, argv  as judgeApart() has made them, from kProcessWord on
int mainOfProcess(int argc, char** argv);

}  // namespace quillon::kit
