/// Keys and images for tests. Two makers exist, "a" and "b", each with keys of its own.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "support/files.h"
#include "tools/quillon-image/keys.h"
#include "tools/quillon-image/stick-image.h"

namespace quillon::test {

constexpr char kTrustedKeys[] = "/etc/quillon/trusted-keys/";
constexpr char kProvisioningCertificates[] = "/etc/quillon/provisioning-certificates/";

inline std::string keyPath(const std::string& maker, const std::string& file)
{
    return std::string(QUILLON_TEST_KEYS) + "/" + maker + "/" + file;
}

/// Gives the device a trust policy.
inline void putPolicy(const std::string& text)
{
    writeFile(QUILLON_TRUST_POLICY, text);
}

/// Gives the device the floors that packages have raised.
inline void putFloors(const std::string& text)
{
    writeFile(QUILLON_SECURITY_FLOORS, text);
}

/// Makes the device trust a maker's signatures.
inline void trust(const std::string& maker)
{
    std::filesystem::create_directories(kTrustedKeys);
    std::filesystem::copy_file(keyPath(maker, kPublicKeyFile), kTrustedKeys + maker + ".pem",
                               std::filesystem::copy_options::overwrite_existing);
}

/// Makes the device accept a maker's provisioning packages.
inline void trustProvisioning(const std::string& maker)
{
    std::filesystem::create_directories(kProvisioningCertificates);
    std::filesystem::copy_file(keyPath(maker, kProvisioningCertificateFile),
                               kProvisioningCertificates + maker + ".pem",
                               std::filesystem::copy_options::overwrite_existing);
}

/// Makes an image that a maker enciphered and signed.
inline void makeImage(const std::string& path, const std::string& maker, const std::string& version,
                      const std::string& payload,
                      const std::optional<ImagePurpose>& purpose = std::nullopt)
{
    const std::string payloadPath = path + ".payload";
    writeFile(payloadPath, payload);
    buildStickImage(version, payloadPath, loadImageKey(keyPath(maker, kImageKeyFile)),
                    loadSigningKey(keyPath(maker, kSigningKeyFile)).get(), path, purpose);
    std::filesystem::remove(payloadPath);
}

}  // namespace quillon::test
