/// The registry of this process, as far as broken modules go beyond what it bears by itself.
#pragma once

#include <cxxabi.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <optional>
#include <string>

#include "src/src/fw-update-symbol-manager.h"
#include "src/support/module-observer.h"
#include "tools/quillonctl/exit-codes.h"

namespace quillon {

enum class ModuleKind {
    kFirmware,  ///< updated from images
    kProcess,   ///< has no image and no version on offer; runs when it is asked for by name
    kUnusable   ///< did not load
};

ModuleKind kindOf(const FWUpdateSymbol& module);

/// Finds and loads the device's modules, process modules among them. One that raises an exception
/// meanwhile counts as not loaded and keeps no other from being loaded.
///
/// Throws Failure when the module directory cannot be read.
/// @param only  the name of the only module to find; empty for all
void openRegistry(const std::string& only = {});

/// Something that is wrong with a module.
struct ModuleProblem
{
    std::string code;  ///< a word for programs; empty: nothing
    std::string text;  ///< a phrase for people
};

/// Whether another module has the same package or firmware name: "same-identifier" or "same-name".
/// What is offered to one is offered to both.
ModuleProblem sharedNameOf(const FWUpdateSymbol& module);

/// Why the module is unusable, a phrase: "it has no entry doUpdate" for instance.
std::string defectOf(const FWUpdateSymbol& module);

/// The module whose static initialization has raised an exception. The dynamic linker then stays
/// locked by the main thread: a thread that updates would wait for it for ever.
/// @return nothing when there is none
std::optional<std::string> moduleThatLocksLoader();

/// What a module's plug-in says is running.
/// @return nothing when the module is unusable or its plug-in does not tell
std::optional<std::string> runningVersion(const FWUpdateSymbol& module);

/// How far the module's update is by what its plug-in says, in percent.
/// @return nothing when the plug-in does not tell
std::optional<unsigned int> updateProgress(const std::string& libName);

/// Makes a call that reaches plug-ins, or files that they brought.
/// A plug-in that ends its thread ends it where that is not the main one.
/// @return what was raised, as a phrase for people; empty when nothing was
template <typename Call>
std::string raisedBy(Call call)
{
    try {
        call();
        return {};
    } catch (const std::exception& error) {
        return std::string("an exception was raised: ") + error.what();
    } catch (...) {
        // The one that cannot be had is the C library's: a plug-in ended the thread.
        if (std::current_exception() == nullptr) {
            if (gettid() == getpid()) {
                std::abort();  // what is left of the process would never end
            }
            throw;
        }
        return "an exception was raised";
    }
}

/// Makes a call to a module that returns its result. An exception counts as -1, and its text is
/// noted as the reason for what the observer is told next.
template <typename Call>
int resultOf(Call call)
{
    try {
        return call();
    } catch (const std::exception& error) {
        return because(ModuleReason::kException, error.what());
    } catch (...) {
        return because(ModuleReason::kException);
    }
}

}  // namespace quillon
