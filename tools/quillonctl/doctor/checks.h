/// The checks of doctor, one function each. None changes anything on the device, needs a running
/// service, or waits for anybody longer than some seconds. What this user cannot see is a note. May
/// throw std::bad_alloc.
#pragma once

#include "tools/quillonctl/doctor/finding.h"
#include "tools/quillonctl/doctor/surroundings.h"

namespace quillon::doctor {

/// @name What the device trusts, and its key
/// @{
Findings checkVerifier(const Surroundings& around);
/// Who can change keys, certificates, policy, floors, verifier and modules.
Findings checkTrustedPlaces(const Surroundings& around);
Findings checkKeys(const Surroundings& around);
Findings checkCertificates(const Surroundings& around);
Findings checkPolicy(const Surroundings& around);
/// By the record of the service that runs, or by the names in the storage; reads no secret.
Findings checkImageKey(const Surroundings& around);
Findings checkProvisioningPackage(const Surroundings& around);
/// @}

/// @name How programs talk to the service and to each other
/// @{
Findings checkMarkers(const Surroundings& around);
Findings checkReadiness(const Surroundings& around);
Findings checkQueues(const Surroundings& around);
Findings checkUpdateList(const Surroundings& around);
Findings checkClientLock(const Surroundings& around);
Findings checkSemaphore(const Surroundings& around);
/// Sockets of the processes that run as root, and whether somebody listens there.
Findings checkHelpers(const Surroundings& around);
/// @}

/// @name Modules, and what has become of them
/// @{
/// Files only: no module is loaded.
Findings checkModules(const Surroundings& around);
/// Modules that quillon-unit has moved away.
Findings checkQuarantine(const Surroundings& around);
/// What the service has recorded of its starts.
Findings checkStarts(const Surroundings& around);
/// What the service has recorded of estimates and updates that were cut off.
Findings checkRuns(const Surroundings& around);
/// Modules that are marked for a stick that is gone.
Findings checkMarks(const Surroundings& around);
Findings checkPackages(const Surroundings& around);
/// @}

/// @name The machine
/// @{
Findings checkDirectories(const Surroundings& around);
/// Whether there is room to write, and what is loaded may be executed.
Findings checkFileSystems(const Surroundings& around);
Findings checkClock(const Surroundings& around);
/// What systemd says of the units; nothing where it does not run.
Findings checkUnits(const Surroundings& around);
/// @}

/// What "systemctl show" says, put as findings.
/// @param properties  lines "NAME=VALUE", an empty one between two units
Findings judgeUnits(const std::string& properties);

}  // namespace quillon::doctor
