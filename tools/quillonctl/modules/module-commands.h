/// The command line of "quillonctl modules".
#ifndef QUILLON_QUILLONCTL_MODULE_COMMANDS_H
#define QUILLON_QUILLONCTL_MODULE_COMMANDS_H

#include <CLI/CLI.hpp>
#include <string>

namespace quillon {

/// Adds the verb "modules" with its own verbs, and runs what was given.
class ModuleCommands
{
public:
    /// @param app  must outlive this object
    explicit ModuleCommands(CLI::App& app);

    bool parsed() const { return modules_->parsed(); }

    /// Does what the command line says. Ends the process by itself, without tearing anything down,
    /// when a plug-in is still at an update that has been given up.
    /// @return what the program exits with
    int run(bool json, bool quiet) const;

private:
    CLI::App* modules_;
    std::string name_;
    std::string source_ = "package";
    bool all_ = false;
};

}  // namespace quillon

#endif
