/// Runs the real quillon-module on modules of a directory of the test's own.
#pragma once

#include <gtest/gtest.h>
#include <json/value.h>

#include <string>
#include <vector>

#include "support/process.h"

/// A directory with a module "lantern", whose firmware is lantern.bin beside it.
class ModuleCheck : public testing::Test
{
protected:
    ModuleCheck();
    ~ModuleCheck() override;

    /// Puts a library of tests/modules into the directory.
    /// @param fault  what is wrong with it, see faulty-module.cpp
    /// @return its path
    std::string install(const std::string& library, const std::string& fault = "",
                        const std::string& name = "lantern") const;

    /// Runs "quillon-module check --json" on files.
    /// @param arguments  behind the modules'
    /// @return the object of the first module
    Json::Value check(const std::vector<std::string>& files,
                      const std::vector<std::string>& arguments, int exitCode) const;

    /// @return the object of a clause; null when it is not there
    static Json::Value clauseIn(const Json::Value& module, const std::string& name);

    const std::string directory;
    const std::string image;
};

/// Runs quillon-module to its end.
quillon::test::Result runModule(const std::vector<std::string>& arguments);

/// The names of the clauses of a verdict.
std::vector<std::string> clausesOf(const Json::Value& module, const std::string& verdict);
