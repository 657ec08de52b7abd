/// How quillon-module ends; quillon-module(1) documents the numbers.
#pragma once

#include <stdexcept>
#include <string>

namespace quillon::kit {

enum ExitCode : int {
    kExitSuccess = 0,
    kExitUsage = 2,
    kExitFile = 3,
    kExitBroken = 4,
    kExitInterrupted = 130
};

/// what() is one line for people, with the remedy.
class Failure : public std::runtime_error
{
public:
    Failure(ExitCode code, const std::string& text) : std::runtime_error(text), code_(code) {}

    ExitCode code() const { return code_; }

private:
    ExitCode code_;
};

}  // namespace quillon::kit
