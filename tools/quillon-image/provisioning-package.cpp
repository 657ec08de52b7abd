#include "tools/quillon-image/provisioning-package.h"

#include "base/secret-bytes.h"
#include "platform/storage/provisioning-content.h"
#include "platform/storage/signed-package.h"
#include "platform/verifier/image-error.h"
#include "platform/verifier/input-file.h"

namespace quillon {
namespace {

ProvisioningPackageInfo describe(const std::string& package, const SignedContent& content)
{
    const std::string_view text(reinterpret_cast<const char*>(content.bytes.data()),
                                content.bytes.size());
    ProvisioningContent parts;
    if (const char* defect = parseProvisioningContent(text, parts)) {
        throw ImageError(ImageFault::kFormat, defect);
    }
    return {package.size(), std::string(parts.item), parts.payload.size(), content.signer,
            parts.floors};
}

}  // namespace

std::string encodeProvisioningPackage(const std::string& item, const std::string& payload,
                                      EVP_PKEY* key, const Certificates& certificates,
                                      const Floors& floors)
{
    const bool bringsFloorsAlone = item.empty() && payload.empty() && !floors.empty();
    if (!bringsFloorsAlone && !isItemName(item)) {
        throw ImageError(ImageFault::kUsage, "'" + item + "' is no name for a storage item");
    }
    if (!bringsFloorsAlone && (payload.empty() || payload.size() > kLargestItem)) {
        throw ImageError(ImageFault::kUsage, "a storage item has 1 to 65536 bytes");
    }
    return makeSignedPackage(encodeProvisioningContent({item, payload, floors}), key, certificates);
}

std::optional<ProvisioningPackageInfo> inspectProvisioningPackage(const std::string& path)
{
    try {
        const std::string package = readSmallFile(path, kLargestPackage);
        return describe(package, {peekIntoPackage(package), ""});
    } catch (const ImageError&) {
        return std::nullopt;
    }
}

ProvisioningPackageInfo verifyProvisioningPackage(const std::string& path,
                                                  const std::string& directory, bool wantsPurpose,
                                                  const Complain& complain)
{
    const std::string package = readSmallFile(path, kLargestPackage);
    const Certificates trusted = loadCertificates(directory, complain);
    if (trusted.empty()) {
        throw ImageError(ImageFault::kSignature,
                         path + ": not trusted: no certificate (*.pem) in " + directory);
    }
    try {
        return describe(package, openSignedPackage(package, trusted, wantsPurpose));
    } catch (const ImageError& error) {
        const bool isPackage = error.fault() == ImageFault::kSignature;
        throw ImageError(error.fault(), path +
                                            (isPackage ? ": not signed by anyone trusted: "
                                                       : ": not a provisioning package: ") +
                                            error.what());
    }
}

}  // namespace quillon
