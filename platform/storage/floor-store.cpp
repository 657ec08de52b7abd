#include "platform/storage/floor-store.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include "base/fd.h"
#include "base/replace-file.h"
#include "base/secret-bytes.h"
#include "platform/log/platform-log.h"
#include "platform/verifier/image-error.h"
#include "platform/verifier/trust-policy.h"

namespace quillon {

namespace {

const std::string kPath = QUILLON_SECURITY_FLOORS;
constexpr mode_t kDirectoryMode = 0755;
constexpr mode_t kFileMode = 0644;

/// Held until it is closed. In a file that others cannot open, so that they cannot hold it.
UniqueFd lockOf(const std::string& directory)
{
    UniqueFd lock(
        open((directory + "/.lock").c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    const bool isHeld = lock && uninterrupted([&] { return flock(lock.get(), LOCK_EX); }) == 0;
    return isHeld ? std::move(lock) : UniqueFd();
}

/// @return nothing when they cannot be read.
bool load(Floors& floors)
{
    try {
        floors = loadFloors(kPath);
        return true;
    } catch (const ImageError& error) {
        PLATFORM_LOGE("security floors cannot be raised: %s", error.what());
        return false;
    }
}

void tell(const std::string& package, const Floors& brought, const Floors& before)
{
    for (const auto& [module, floor] : brought) {
        const auto stored = before.find(module);
        if (stored == before.end() || floor > stored->second) {
            PLATFORM_LOGI("%s raised the security floor of %s to %u", package.c_str(),
                          module.c_str(), floor);
        } else if (floor < stored->second) {
            PLATFORM_LOGI("%s has the security floor %u for %s, which stays at %u: none is lowered",
                          package.c_str(), floor, module.c_str(), stored->second);
        }
    }
}

}  // namespace

FloorResult raiseStoredFloors(const std::string& package, const Floors& floors)
{
    if (floors.empty()) {
        return FloorResult::kUnchanged;
    }
    const std::string directory = kPath.substr(0, kPath.rfind('/'));
    // Readable for the service also where this process makes files for itself alone.
    const bool isThere =
        makeDirectories(directory, kDirectoryMode) && chmod(directory.c_str(), kDirectoryMode) == 0;
    const UniqueFd lock = isThere ? lockOf(directory) : UniqueFd();
    if (!lock) {
        PLATFORM_LOGE("%s cannot be made and locked: %m", directory.c_str());
        return FloorResult::kFailed;
    }
    Floors before;
    if (!load(before)) {
        return FloorResult::kFailed;
    }
    Floors after = before;
    raiseFloors(after, floors);
    const std::string text = floorsText(after);
    if (text.size() > kLargestTrustFile) {
        // Written, it could not be read again, and nothing would be trusted any more.
        PLATFORM_LOGE("%s brings too many security floors: %s has room for %zu bytes",
                      package.c_str(), kPath.c_str(), kLargestTrustFile);
        return FloorResult::kFailed;
    }
    if (after != before && !replaceFile(directory, kPath.substr(directory.size() + 1),
                                        SecretBytes(text.begin(), text.end()), kFileMode)) {
        PLATFORM_LOGE("%s cannot be written: %m", kPath.c_str());
        return FloorResult::kFailed;
    }
    tell(package, floors, before);
    return after == before ? FloorResult::kUnchanged : FloorResult::kRaised;
}

}  // namespace quillon
