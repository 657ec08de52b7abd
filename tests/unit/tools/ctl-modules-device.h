/// A device with modules whose every answer the test decides, for the real control layer.
#pragma once

#include <gtest/gtest.h>
#include <json/value.h>

#include <cstdint>
#include <string>
#include <vector>

#include "unit/tools/ctl-program.h"

/// Runs "quillonctl modules ...". The platform's log lines are taken out of `err` and put into
/// `log`.
struct ModulesResult : CtlResult
{
    std::string log;
};
ModulesResult runModules(std::vector<std::string> arguments);
ModulesResult splitLog(const CtlResult& result);

/// Runs "quillonctl --json modules ..." and reads the one document that it writes.
/// @param arguments  behind "modules"
Json::Value modulesDocument(std::vector<std::string> arguments, int exitCode = 0);

/// The object of the module with that name in a document's "modules"; null when there is none.
Json::Value moduleIn(const Json::Value& document, const std::string& name);

/// What a test plug-in was asked, one call each.
std::vector<std::string> callsOfModule(const std::string& name);

/// Base of the control layer's tests. The modules read their behaviour from a file, see
/// tests/modules/README.md; images lie in the system firmware area unless another directory is
/// named.
class CtlModules : public testing::Test
{
protected:
    CtlModules();

    /// @param settings  lines of key=value; doUpdate takes 100 ms unless they say otherwise
    /// @param library   which variant of the test plug-in
    static void install(const std::string& name, const std::string& settings = "",
                        const std::string& library = "full");
    /// Puts a file that is no test plug-in among the modules, as NAME.so.
    static void installFile(const std::string& name, const std::string& content);

    /// Offers version 2.0 to the module, for an update of so many expected seconds.
    static void offer(const std::string& name, std::int64_t seconds = 3,
                      const std::string& directory = "/lib/firmware/ext/");
    static void offerWithWrongChecksum(const std::string& name);

    static Json::Value json(const std::vector<std::string>& arguments, int exitCode = 0)
    {
        return modulesDocument(arguments, exitCode);
    }
    static Json::Value of(const std::string& name, const Json::Value& document)
    {
        return moduleIn(document, name);
    }
    static std::vector<std::string> callsOf(const std::string& name) { return callsOfModule(name); }
};
