#include "platform/storage/item-store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <string>

#include "base/fd.h"
#include "base/regular-file.h"
#include "base/replace-file.h"
#include "platform/log/platform-log.h"
#include "platform/storage/provisioning-content.h"
#include "platform/storage/sealing.h"

namespace quillon {

namespace {

constexpr char kDirectory[] = QUILLON_SECURE_STORAGE;
constexpr char kSealedSuffix[] = ".cred";
constexpr mode_t kDirectoryMode = 0700;
constexpr mode_t kGroupAndOthers = 0077;
constexpr std::size_t kLongestShownName = 64;

std::string pathOf(const std::string& file)
{
    return std::string(kDirectory).append("/").append(file);
}

StoreResult openFile(const std::string& path, UniqueFd& fd)
{
    struct stat status = {};
    switch (openRegularFile(path.c_str(), O_NOFOLLOW, fd, status)) {
        case FileResult::kOk:
            break;
        case FileResult::kMissing:
            return kStoreMissing;
        case FileResult::kNotRegular:
            PLATFORM_LOGE("%s is not a regular file", path.c_str());
            return kStoreNotAFile;
        default:
            PLATFORM_LOGE("%s cannot be opened: %m", path.c_str());
            return kStoreFailed;
    }
    if ((status.st_mode & kGroupAndOthers) != 0) {
        PLATFORM_LOGE("%s has mode %04o, which is open to group or others; 0600 is wanted",
                      path.c_str(), status.st_mode & 07777U);
        return kStoreExposed;
    }
    return kStoreOk;
}

StoreResult readFile(const std::string& path, std::size_t limit, SecretBytes& bytes)
{
    UniqueFd fd;
    const StoreResult opened = openFile(path, fd);
    if (opened != kStoreOk) {
        return opened;
    }
    const FileResult read = readToEnd(fd.get(), limit, bytes);
    if (read == FileResult::kFailed) {
        PLATFORM_LOGE("%s cannot be read: %m", path.c_str());
        return kStoreFailed;
    }
    if (read == FileResult::kTooLarge || bytes.empty()) {
        PLATFORM_LOGE("%s does not have 1 to %zu bytes", path.c_str(), limit);
        return kStoreBadSize;
    }
    return kStoreOk;
}

StoreResult unsealItem(const std::string& name, const SecretBytes& sealed, SecretBytes& bytes)
{
    const std::string reason = unseal(name, sealed, bytes);
    if (!reason.empty()) {
        PLATFORM_LOGE("%s/%s%s cannot be unsealed: %s", kDirectory, name.c_str(), kSealedSuffix,
                      reason.c_str());
        return kStoreSealed;
    }
    if (bytes.empty()) {
        PLATFORM_LOGE("%s/%s%s holds an empty item", kDirectory, name.c_str(), kSealedSuffix);
        return kStoreBadSize;
    }
    return kStoreOk;
}

StoreResult writeFile(const std::string& file, const SecretBytes& bytes)
{
    if (!makeDirectories(kDirectory, kDirectoryMode)) {
        PLATFORM_LOGE("%s cannot be made: %m", kDirectory);
        return kStoreFailed;
    }
    if (!replaceFile(kDirectory, file, bytes)) {
        PLATFORM_LOGE("%s/%s cannot be written: %m", kDirectory, file.c_str());
        return kStoreFailed;
    }
    return kStoreOk;
}

StoreResult storeRaw(const std::string& name, const SecretBytes& bytes)
{
    static std::atomic_flag said = ATOMIC_FLAG_INIT;
    if (!said.test_and_set()) {
        PLATFORM_LOGI("no " QUILLON_SYSTEMD_CREDS
                      ": items are stored unsealed, protected by their files' mode only");
    }
    struct stat status = {};
    if (lstat(pathOf(name + kSealedSuffix).c_str(), &status) == 0) {
        PLATFORM_LOGE("%s/%s%s is sealed and would hide an unsealed item", kDirectory, name.c_str(),
                      kSealedSuffix);
        return kStoreFailed;
    }
    return writeFile(name, bytes);
}

StoreResult storeSealed(const std::string& name, const SecretBytes& bytes)
{
    SecretBytes sealed;
    const std::string reason = seal(name, bytes, sealed);
    if (!reason.empty()) {
        PLATFORM_LOGE("%s cannot be sealed: %s", name.c_str(), reason.c_str());
        return kStoreFailed;
    }
    const StoreResult written = writeFile(name + kSealedSuffix, sealed);
    if (written == kStoreOk && unlink(pathOf(name).c_str()) != 0 && errno != ENOENT) {
        PLATFORM_LOGE("%s/%s, the item as it was before sealing, cannot be removed: %m", kDirectory,
                      name.c_str());
    }
    return written;
}

}  // namespace

StoreResult readItem(std::string_view name, SecretBytes& bytes)
{
    if (!isItemName(name)) {
        PLATFORM_LOGE("\"%.*s\" cannot be the name of an item",
                      static_cast<int>(std::min(name.size(), kLongestShownName)), name.data());
        return kStoreBadArgument;
    }
    const std::string item(name);
    SecretBytes sealed;
    const StoreResult found = readFile(pathOf(item + kSealedSuffix), kLargestSealed, sealed);
    switch (found) {
        case kStoreOk:
            return unsealItem(item, sealed, bytes);
        case kStoreMissing:
            return readFile(pathOf(item), kLargestItem, bytes);
        default:
            return found;
    }
}

StoreResult storeItem(std::string_view name, const SecretBytes& bytes)
{
    if (!isItemName(name) || bytes.empty() || bytes.size() > kLargestItem) {
        PLATFORM_LOGE("an item of %zu bytes and this name cannot be stored", bytes.size());
        return kStoreBadArgument;
    }
    const std::string item(name);
    return sealingIsThere() ? storeSealed(item, bytes) : storeRaw(item, bytes);
}

}  // namespace quillon
