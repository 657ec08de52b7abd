#include "item-store.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <string>

#include "platform-log.h"

namespace quillon {

namespace {

constexpr char kFolder[] = QUILLON_SECURE_STORAGE;
constexpr mode_t kFolderMode = 0700;
constexpr mode_t kGroupAndOthers = 0077;
constexpr std::size_t kLongestName = 64;

bool isNameCharacter(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' ||
           c == '_' || c == '-';
}

StoreResult openItem(const std::string& path, UniqueFd& fd)
{
    switch (openRegularFile(path.c_str(), O_NOFOLLOW, fd)) {
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
    struct stat status = {};
    if (fstat(fd.get(), &status) != 0) {
        PLATFORM_LOGE("%s cannot be examined: %m", path.c_str());
        return kStoreFailed;
    }
    if ((status.st_mode & kGroupAndOthers) != 0) {
        PLATFORM_LOGE("%s has mode %04o, which is open to group or others; 0600 is wanted",
                      path.c_str(), status.st_mode & 07777U);
        return kStoreExposed;
    }
    return kStoreOk;
}

}  // namespace

bool isItemName(std::string_view name)
{
    return !name.empty() && name.size() <= kLongestName && name.front() != '.' &&
           std::all_of(name.begin(), name.end(), isNameCharacter);
}

StoreResult readItem(std::string_view name, SecretBytes& bytes)
{
    if (!isItemName(name)) {
        PLATFORM_LOGE("\"%.*s\" cannot be the name of an item",
                      static_cast<int>(std::min(name.size(), kLongestName)), name.data());
        return kStoreBadArgument;
    }
    const std::string path = std::string(kFolder).append("/").append(name);
    UniqueFd fd;
    const StoreResult opened = openItem(path, fd);
    if (opened != kStoreOk) {
        return opened;
    }
    const FileResult read = readToEnd(fd.get(), kLargestItem, bytes);
    if (read == FileResult::kFailed) {
        PLATFORM_LOGE("%s cannot be read: %m", path.c_str());
        return kStoreFailed;
    }
    if (read == FileResult::kTooLarge || bytes.empty()) {
        PLATFORM_LOGE("%s does not have 1 to %zu bytes", path.c_str(), kLargestItem);
        return kStoreBadSize;
    }
    return kStoreOk;
}

StoreResult storeItem(std::string_view name, const SecretBytes& bytes)
{
    if (!isItemName(name) || bytes.empty() || bytes.size() > kLargestItem) {
        PLATFORM_LOGE("an item of %zu bytes and this name cannot be stored", bytes.size());
        return kStoreBadArgument;
    }
    if (!makeFolders(kFolder, kFolderMode)) {
        PLATFORM_LOGE("%s cannot be made: %m", kFolder);
        return kStoreFailed;
    }
    if (!replaceFile(kFolder, std::string(name), bytes)) {
        PLATFORM_LOGE("%s/%.*s cannot be written: %m", kFolder, static_cast<int>(name.size()),
                      name.data());
        return kStoreFailed;
    }
    return kStoreOk;
}

}  // namespace quillon
