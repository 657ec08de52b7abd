/// Judges modules under the confinement that the service's unit has on this machine.
#pragma once

#include <string>
#include <vector>

#include "tools/quillon-module/check.h"

namespace quillon::kit {

/// @param unit  a unit with its drop-ins, as "systemctl cat" shows it
/// @return what systemd-run --property= takes, each "NAME=VALUE" in its order: the settings of the
///         service but those of how it is started, watched, ended and where it writes to
std::vector<std::string> confinementOf(const std::string& unit);

/// Does the rest of check() in a transient unit that is confined as quillon.service, drop-ins
/// included. The modules lie in the module directory there; what else is in it is not seen. The
/// unit is stopped when somebody asks this program to end.
/// @param request  its files can be read
/// @return as check() does. Throws Failure, also without systemd, the unit or root's rights.
ExitCode checkConfined(const CheckRequest& request);

}  // namespace quillon::kit
