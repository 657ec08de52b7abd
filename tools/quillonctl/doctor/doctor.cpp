#include "tools/quillonctl/doctor/doctor.h"

#include <algorithm>

#include "tools/quillonctl/doctor/checks.h"
#include "tools/shared/outside-text.h"

namespace quillon::doctor {

namespace {

using Check = Findings (*)(const Surroundings&);

constexpr Check kChecks[] = {
    checkVerifier,
    checkTrustedPlaces,
    checkKeys,
    checkCertificates,
    checkPolicy,
    checkImageKey,
    checkProvisioningPackage,
    checkMarkers,
    checkReadiness,
    checkQueues,
    checkUpdateList,
    checkClientLock,
    checkSemaphore,
    checkUnits,  // a helper whose unit is masked does not start by its own remedy
    checkHelpers,
    checkModules,
    checkQuarantine,
    checkStarts,
    checkRuns,
    checkMarks,
    checkPackages,
    checkDirectories,
    checkFileSystems,
    checkClock,
};

constexpr const char* kSeverities[] = {"note", "warning", "error"};

std::string counted(int count, const std::string& what)
{
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

void say(Output& output, const Finding& finding)
{
    const std::string severity = kSeverities[static_cast<int>(finding.severity)];
    const std::string text = printable(finding.text);
    const std::string remedy = printable(finding.remedy);
    output.say("finding",
               {{"severity", severity}, {"code", finding.code}, {"text", text}, {"remedy", remedy}},
               severity + ": " + text + "\n    " + remedy);
}

}  // namespace

Findings examine()
{
    const Surroundings around = lookAround();
    Findings all;
    for (const Check check : kChecks) {
        append(all, check(around));
    }
    std::stable_sort(all.begin(), all.end(), [](const Finding& left, const Finding& right) {
        return left.severity > right.severity;
    });
    return all;
}

ExitCode run(Output& output)
{
    const Findings findings = examine();
    int counts[] = {0, 0, 0};
    for (const Finding& finding : findings) {
        say(output, finding);
        ++counts[static_cast<int>(finding.severity)];
    }
    const auto [notes, warnings, errors] = counts;
    output.say("examined", {{"errors", errors}, {"warnings", warnings}, {"notes", notes}},
               findings.empty() ? "Nothing found"
                                : counted(errors, "error") + ", " + counted(warnings, "warning") +
                                      ", " + counted(notes, "note"));
    if (errors > 0) {
        return kExitFoundErrors;
    }
    return warnings > 0 ? kExitFoundWarnings : kExitSuccess;
}

}  // namespace quillon::doctor
