/// Where the control layer looks for updates.
#pragma once

#include <string>

#include "src/src/fw-update-symbol.h"

namespace quillon {

struct ModuleSource
{
    const char* name;    ///< as it is given on the command line
    CallerTypes caller;  ///< as whom the registry and the plug-ins are asked
    UPDATE_TYPE type;
};

inline constexpr ModuleSource kModuleSources[] = {
    {"usb", CALLER_STICK, UPDATE_USB},
    {"package", CALLER_SERVICE, UPDATE_EMP},
    {"system", CALLER_SYSTEM, UPDATE_EXT},
    {"shared", CALLER_SHARED, UPDATE_SBOX},
};

/// @return null when there is no such source
inline const ModuleSource* findModuleSource(const std::string& name)
{
    for (const ModuleSource& source : kModuleSources) {
        if (name == source.name) {
            return &source;
        }
    }
    return nullptr;
}

}  // namespace quillon
