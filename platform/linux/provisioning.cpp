#include <exception>

#include "base/fd.h"
#include "base/regular-file.h"
#include "base/secret-bytes.h"
#include "platform/linux/storage-client.h"
#include "platform/log/platform-log.h"
#include "platform/secure-storage.h"
#include "platform/storage/install-package.h"
#include "platform/storage/provisioning-content.h"

namespace quillon {
namespace {

InstallResult readPackage(const char* path, SecretBytes& bytes)
{
    UniqueFd fd;
    struct stat status = {};
    const FileResult opened = openRegularFile(path, 0, fd, status);
    if (opened == FileResult::kNotRegular) {
        PLATFORM_LOGE("%s is not a regular file", path);
        return kPackageUnreadable;
    }
    if (opened != FileResult::kOk) {
        PLATFORM_LOGE("%s cannot be opened: %m", path);
        return kPackageUnreadable;
    }
    const FileResult read = readToEnd(fd.get(), kLargestPackage, bytes);
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

int install(const char* path)
{
    SecretBytes bytes;
    const InstallResult read = readPackage(path, bytes);
    if (read != kInstalled) {
        return read;
    }
    const auto answer = installThroughHelper(bytes);
    return answer ? *answer : installPackage(path, bytes);
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
