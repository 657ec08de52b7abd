/// The module registry for a test, seen from outside: it shows nothing of itself but its work.
#pragma once

#include <dirent.h>

#include <string>
#include <vector>

#include "fakes/timeline.h"
#include "fw-update-symbol-manager.h"
#include "support/device-fixture.h"

namespace quillon::test {

inline constexpr const char* kModuleDirectory = "/usr/fwupdate/controls";

/// The stems of the module directory's ".so" files, in the order in which the directory lists them.
inline std::vector<std::string> listedModules()
{
    std::vector<std::string> stems;
    DIR* directory = opendir(kModuleDirectory);
    while (const dirent* entry = directory != nullptr ? readdir(directory) : nullptr) {
        const std::string name = entry->d_name;
        if (name.size() > 3 && name.substr(name.size() - 3) == ".so") {
            stems.push_back(name.substr(0, name.size() - 3));
        }
    }
    if (directory != nullptr) {
        closedir(directory);
    }
    return stems;
}

class RegistryTest : public DeviceTest
{
protected:
    /// The firmware names of all modules in the list, in its order; empty for one that is not
    /// loaded. Looks for their images in a place where there are none.
    std::vector<std::string> registered()
    {
        fakes::clear();
        int total = 0;
        manager->getFirmwareUpdateTime(key, "/nowhere/", total);
        std::vector<std::string> names;
        const std::string before = "Error: /nowhere/";
        const std::string behind = ".bin open fail";
        for (const std::string& line : fakes::logTexts()) {
            expectText(line, like(before + "*" + behind));
            names.push_back(
                line.substr(before.size(), line.size() - before.size() - behind.size()));
        }
        fakes::clear();
        return names;
    }

    FWUpdateSymbolManager* manager = FWUpdateSymbolManager::getInstance();
};

}  // namespace quillon::test
