#include "tools/quillonctl/module-finding.h"

#include <algorithm>
#include <map>

#include "base/alphanumeric.h"
#include "tools/quillonctl/next-commands.h"

namespace quillon {

namespace {

std::string defectOfIdentifier(const std::string& identifier)
{
    return std::all_of(identifier.begin(), identifier.end(), isLetterOrDigit)
               ? "its package identifier does not contain \"emp\": " + identifier
               : "its package identifier has other characters than ASCII letters and digits: " +
                     identifier;
}

}  // namespace

std::string phraseOf(const ModuleFinding& finding)
{
    static const std::map<ModuleReason, const char*> kPhrases = {
        {ModuleReason::kNoName, "its file has no name"},
        {ModuleReason::kNoLibrary, "its file is gone"},
        {ModuleReason::kNoIdentifier, "its package identifier is empty"},
        {ModuleReason::kNoPackage, "no package"},
        {ModuleReason::kNotMounted, "its package cannot be mounted"},
        {ModuleReason::kNoInformation, "its information file is missing"},
        {ModuleReason::kBadInformation, "its information file cannot be read"},
        {ModuleReason::kBadChecksum, "its image does not match its checksum"},
        {ModuleReason::kNoKey, "there is no image key on the device"},
        {ModuleReason::kNotSigned,
         "its image is not signed, or with a key that the device does not trust"},
        {ModuleReason::kNoPlugIn, "its plug-in is not loaded"},
        {ModuleReason::kTooShort, "its image is too short"},
        {ModuleReason::kNotDeciphered, "its image has another image key, or is damaged"},
        {ModuleReason::kNoDuration, "its plug-in does not say how long an update takes"},
        {ModuleReason::kContextRefused, "its plug-in refused to be asked"},
        {ModuleReason::kCheckFailed, "its plug-in could not check the version"},
    };
    switch (finding.reason) {
        case ModuleReason::kNotLoadable:
            return "it does not load: " + finding.detail;
        case ModuleReason::kNoEntry:
            return "it has no entry " + finding.detail;
        case ModuleReason::kNoImage:
            return finding.detail.empty() ? "its image is missing"
                                          : "the service cannot open its image: " + finding.detail;
        case ModuleReason::kBadIdentifier:
            return defectOfIdentifier(finding.detail);
        case ModuleReason::kUpdateFailed:
            return finding.result == -1
                       ? "its plug-in could not update it"
                       : "the module's own code is " + std::to_string(finding.result);
        case ModuleReason::kUpToDate:
            return finding.result == -1 ? "its plug-in no longer takes the image for newer"
                                        : "up to date";
        case ModuleReason::kException:
            return finding.detail.empty() ? "an exception was raised"
                                          : "an exception was raised: " + finding.detail;
        default: {
            const auto phrase = kPhrases.find(finding.reason);
            return phrase != kPhrases.end() ? phrase->second
                                            : "the log (" + logOf("FWUPDATE") + ") says why";
        }
    }
}

std::string phraseOfLate(const std::optional<ModuleFinding>& end)
{
    if (!end) {
        return "it is still being updated";
    }
    return end->result == 0 ? "it was updated only after its time"
                            : "the update ended only after its time";
}

std::string phraseOfSuccess(const std::string& before, const std::string& after,
                            const std::string& offered)
{
    const bool isUnchanged = !after.empty() && after == before;
    return isUnchanged && !offered.empty() && offered != after
               ? "it still runs " + after + ", not " + offered
               : "";
}

std::string warningOfSuccess(const std::string& module, const std::string& phrase)
{
    return "the module " + module + " answered that it was updated, but " + phrase +
           "; restart the device, then \"quillonctl modules list\" tells what it runs; if that has "
           "not changed, ask the module's maker";
}

}  // namespace quillon
