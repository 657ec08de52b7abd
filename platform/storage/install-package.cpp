#include "platform/storage/install-package.h"

#include <string_view>

#include "platform/log/platform-log.h"
#include "platform/storage/floor-store.h"
#include "platform/storage/item-store.h"
#include "platform/storage/maker-certificates.h"
#include "platform/storage/provisioning-content.h"
#include "platform/storage/signed-package.h"
#include "platform/verifier/image-error.h"
#include "platform/verifier/trust-policy.h"

namespace quillon {

namespace {

constexpr char kDirectory[] = QUILLON_PROVISIONING_CERTIFICATES;
constexpr char kPolicy[] = QUILLON_TRUST_POLICY;

std::string_view textOf(const SecretBytes& bytes)
{
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

void complain(const std::string& line)
{
    PLATFORM_LOGE("%s", line.c_str());
}

InstallResult storeContentItem(const std::string& name, const ProvisioningContent& content,
                               const std::string& signer)
{
    const SecretBytes payload(content.payload.begin(), content.payload.end());
    SecretBytes present;
    if (readItem(content.item, present) == kStoreOk && present == payload) {
        return kAlreadyInstalled;
    }
    if (storeItem(content.item, payload) != kStoreOk) {
        return kStorageFailed;
    }
    PLATFORM_LOGI("%s brought the item %.*s, signed by %s", name.c_str(),
                  static_cast<int>(content.item.size()), content.item.data(), signer.c_str());
    return kInstalled;
}

InstallResult storeContent(const std::string& name, const SignedContent& package)
{
    ProvisioningContent content;
    if (const char* defect = parseProvisioningContent(textOf(package.bytes), content)) {
        PLATFORM_LOGE("%s is not a provisioning package: %s", name.c_str(), defect);
        return kPackageMalformed;
    }
    // The floors first: a package that is cut short by a full disk has not brought a key without
    // them.
    const FloorResult floors = raiseStoredFloors(name, content.floors);
    if (floors == FloorResult::kFailed) {
        return kStorageFailed;
    }
    const InstallResult item =
        content.item.empty() ? kAlreadyInstalled : storeContentItem(name, content, package.signer);
    return item == kAlreadyInstalled && floors == FloorResult::kRaised ? kInstalled : item;
}

}  // namespace

InstallResult installPackage(const std::string& name, const SecretBytes& package)
{
    try {
        const Certificates trusted = loadCertificates(kDirectory, &complain);
        if (trusted.empty()) {
            PLATFORM_LOGE("%s cannot be trusted: no certificate (*.pem) in %s", name.c_str(),
                          kDirectory);
            return kNobodyTrusted;
        }
        const bool wantsPurpose = loadTrustPolicy(kPolicy).requiresProvisioningPurpose;
        return storeContent(name, openSignedPackage(textOf(package), trusted, wantsPurpose));
    } catch (const ImageError& error) {
        switch (error.fault()) {
            case ImageFault::kFormat:
                PLATFORM_LOGE("%s is not a provisioning package: %s", name.c_str(), error.what());
                return kPackageMalformed;
            case ImageFault::kSignature:
                PLATFORM_LOGE("%s is not signed by anyone trusted in %s: %s", name.c_str(),
                              kDirectory, error.what());
                return kPackageNotTrusted;
            default:
                PLATFORM_LOGE("%s cannot be trusted: %s", name.c_str(), error.what());
                return kNobodyTrusted;
        }
    }
}

}  // namespace quillon
