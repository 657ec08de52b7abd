#pragma once

#include <string>

#include "support/process.h"

namespace quillon::test {

/// The quillon-device program under test.
std::string deviceProgram();

/// Runs quillon-device with these arguments to its end.
Result runDevice(const Words& arguments);

/// Runs a shell script in a device; `options` come before it.
Result runScript(const std::string& script, const Words& options = {});

/// Whether this machine allows a private device, by this way ("auto" for any but in place).
bool hasPrivateDevice(const std::string& way = "auto");

/// How many processes have this word in their command line.
int processesWith(const std::string& word);

/// Waits until no process has this word in its command line. @return false after a minute
bool vanish(const std::string& word);

/// A word that no other process on the machine bears.
std::string uniqueWord();

}  // namespace quillon::test
