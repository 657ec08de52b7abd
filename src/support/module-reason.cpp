#include "support/module-reason.h"

#include <algorithm>
#include <iterator>

namespace quillon {
namespace {

struct Code
{
    ModuleReason reason;
    const char* text;
};

constexpr Code kCodes[] = {{ModuleReason::kNone, ""},
                           {ModuleReason::kNoName, "no-name"},
                           {ModuleReason::kNoLibrary, "no-library"},
                           {ModuleReason::kNotLoadable, "not-loadable"},
                           {ModuleReason::kNoEntry, "no-entry"},
                           {ModuleReason::kNoIdentifier, "no-identifier"},
                           {ModuleReason::kBadIdentifier, "bad-identifier"},
                           {ModuleReason::kNoKey, "no-key"},
                           {ModuleReason::kNoDirectory, "no-directory"},
                           {ModuleReason::kNoPackage, "no-package"},
                           {ModuleReason::kNotMounted, "not-mounted"},
                           {ModuleReason::kNoImage, "no-image"},
                           {ModuleReason::kNoInformation, "no-information"},
                           {ModuleReason::kBadInformation, "bad-information"},
                           {ModuleReason::kBadChecksum, "bad-checksum"},
                           {ModuleReason::kNotSigned, "not-signed"},
                           {ModuleReason::kNoPlugIn, "no-plug-in"},
                           {ModuleReason::kTooShort, "too-short"},
                           {ModuleReason::kNotDeciphered, "not-deciphered"},
                           {ModuleReason::kContextRefused, "context-refused"},
                           {ModuleReason::kCheckFailed, "check-failed"},
                           {ModuleReason::kUpToDate, "up-to-date"},
                           {ModuleReason::kNoDuration, "no-duration"},
                           {ModuleReason::kUpdateFailed, "update-failed"},
                           {ModuleReason::kException, "exception"}};

}  // namespace

const char* codeOf(ModuleReason reason)
{
    return std::find_if(std::begin(kCodes), std::end(kCodes),
                        [&](const Code& code) { return code.reason == reason; })
        ->text;
}

ModuleReason reasonOf(const std::string& code)
{
    const auto* const found = std::find_if(std::begin(kCodes), std::end(kCodes),
                                           [&](const Code& one) { return code == one.text; });
    return found != std::end(kCodes) ? found->reason : ModuleReason::kNone;
}

}  // namespace quillon
