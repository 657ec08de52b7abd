#pragma once

#include <string>

namespace quillon::kit {

/// The command line of "emulate".
struct EmulateRequest
{
    std::string record;
    std::string directory;
    bool json = false;
};

/// Makes an emulated module for each module of a recorded run, which behaves as that one did, and
/// writes what each does and what the record does not tell of it. The record is the output of
/// "quillonctl --json": "modules list", "modules check", "check", "update" and "history", one after
/// another; what comes later counts.
///
/// The directory appears whole or not at all. Throws Failure.
void emulate(const EmulateRequest& request);

}  // namespace quillon::kit
