#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>

namespace quillon::fakes {

/// What an entry of the test plug-in does instead of returning.
enum class Effect {
    None,
    Throw,         ///< raises std::runtime_error with the entry's name
    ThrowUnknown,  ///< raises an int
    Hang,          ///< never returns
    Crash,         ///< aborts the process
    Exit,          ///< ends the process with status 0
    ChildExits,    ///< forks a child that calls exit(0), waits for it, and returns
    ChildReturns,  ///< forks a child that returns as well, and tells how it ended
    ChildThrows,   ///< forks a child that raises std::runtime_error, and tells how it ended
    ChildStays     ///< forks a child that waits for the file /tmp/quillon-test-go, and goes on
};

/// How one entry behaves. The delay comes first, then the effect, then errno and the result.
struct EntryBehaviour
{
    int result = 0;
    int delayMs = 0;
    Effect effect = Effect::None;
    int error = 0;  ///< errno when the entry returns; 0 leaves it alone
};

/// How the test plug-in behaves that is installed under one name.
struct ModuleBehaviour
{
    /// What getEMPID writes, followed by a NUL where that still fits into the promised 128 bytes.
    std::string empid;
    /// Written as empid is; empty: getActiveVersion leaves its buffer alone.
    std::optional<std::string> activeVersion = "1.0";
    std::optional<int> need = 0;              ///< empty: checkVersion leaves its answer alone
    std::optional<int> expectedSeconds = 10;  ///< empty: getExpectedTime leaves its answer alone
    unsigned int progress = 0;
    std::string capturePath;  ///< file that receives each payload; empty: none
    std::map<std::string, EntryBehaviour> entries;

    /// When set, is called with the arguments of setContext before the entry's own behaviour.
    std::function<void(const char* libraryName, char* argument)> onSetContext;
    /// When set, is called in allUpdateDone before the entry's own behaviour.
    std::function<void()> onAllUpdateDone;
    /// When set, answers instead of `need` and the entry's result.
    std::function<int(const char* version, int* need)> onCheckVersion;
    /// When set, is called with the arguments of doUpdate before the entry's own behaviour.
    std::function<void(const char* path, unsigned long value)> onUpdate;
    /// When set, is called with the payload before the entry's own behaviour.
    std::function<void(const unsigned char* data, int length)> onPayload;
};

}  // namespace quillon::fakes
