#include <exception>
#include <string_view>

#include "files.h"
#include "item-store.h"
#include "package.h"
#include "platform-log.h"
#include "platform/secure-storage.h"

namespace quillon {
namespace {

// The service clears bit 1 of a failure before it hands it on, so no failure has that bit set.
enum InstallResult : int {
    kInstalled = 0,
    kAlreadyInstalled = 2,
    kPackageUnreadable = 1,
    kPackageMalformed = 4,
    kPackageDamaged = 5,
    kStorageFailed = 8,
};

InstallResult readPackage(const char* path, SecretBytes& bytes)
{
    UniqueFd fd;
    const FileResult opened = openRegularFile(path, 0, fd);
    if (opened == FileResult::kNotRegular) {
        PLATFORM_LOGE("%s is not a regular file", path);
        return kPackageUnreadable;
    }
    if (opened != FileResult::kOk) {
        PLATFORM_LOGE("%s cannot be opened: %m", path);
        return kPackageUnreadable;
    }
    const FileResult read = readToEnd(fd.get(), kLongestPackageHead + kLargestItem, bytes);
    if (read == FileResult::kTooLarge) {
        PLATFORM_LOGE("%s is too large for a provisioning package", path);
        return kPackageMalformed;
    }
    if (read != FileResult::kOk) {
        PLATFORM_LOGE("%s cannot be read: %m", path);
        return kPackageUnreadable;
    }
    return kInstalled;
}

InstallResult install(const char* path)
{
    SecretBytes bytes;
    const InstallResult read = readPackage(path, bytes);
    if (read != kInstalled) {
        return read;
    }
    Package package;
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    if (const char* defect = parsePackage(text, package)) {
        PLATFORM_LOGE("%s is not a provisioning package: %s", path, defect);
        return kPackageMalformed;
    }
    if (!digestMatches(package)) {
        PLATFORM_LOGE("%s is damaged: its payload does not have the SHA-256 that it states", path);
        return kPackageDamaged;
    }
    const SecretBytes payload(package.payload.begin(), package.payload.end());
    SecretBytes present;
    if (readItem(package.item, present) == kStoreOk && present == payload) {
        return kAlreadyInstalled;
    }
    return storeItem(package.item, payload) == kStoreOk ? kInstalled : kStorageFailed;
}

}  // namespace
}  // namespace quillon

int sdp_install_from_file(const char* path, int /*kind*/, int /*reserved*/)
{
    using namespace quillon;
    if (path == nullptr) {
        PLATFORM_LOGE("a provisioning without a package");
        return kPackageUnreadable;
    }
    try {
        return install(path);
    } catch (const std::exception& error) {
        PLATFORM_LOGE("%s cannot be installed: %s", path, error.what());
        return kStorageFailed;
    }
}
