#include "tools/quillon-image/verbs.h"

#include <json/json.h>

#include <filesystem>
#include <iostream>

#include "platform/storage/provisioning-content.h"
#include "platform/verifier/hex-text.h"
#include "platform/verifier/image-error.h"
#include "platform/verifier/input-file.h"
#include "platform/verifier/public-key.h"
#include "tools/quillon-image/atomic-file.h"
#include "tools/quillon-image/keys.h"
#include "tools/quillon-image/package-image.h"
#include "tools/quillon-image/provisioning-package.h"
#include "tools/quillon-image/stick-image.h"

namespace quillon {
namespace {

/// Says what a verb found out: a line for each entry, or one JSON object.
void report(const Json::Value& entries, bool json)
{
    if (json) {
        Json::StreamWriterBuilder writer;
        writer["indentation"] = "";
        std::cout << Json::writeString(writer, entries) << '\n';
        return;
    }
    for (const std::string& name : entries.getMemberNames()) {
        std::cout << name << ": " << entries[name].asString() << '\n';
    }
}

void warn(const std::string& line)
{
    std::cerr << "quillon-image: " << line << '\n';
}

Json::Value describe(const std::string& path, const StickImageInfo& image)
{
    Json::Value entries;
    entries["image"] = path;
    entries["size"] = static_cast<Json::UInt64>(image.size);
    entries["ciphertextSize"] = static_cast<Json::UInt64>(image.ciphertextSize);
    entries["initialisationVector"] = hexText(image.vector.data(), image.vector.size());
    entries["keyId"] = keyIdText(image.trailer);
    entries["trailerFormat"] = image.trailer.format;
    entries["signatureAlgorithm"] =
        image.trailer.format == 1 ? "RSA-4096 PSS SHA-256" : "RSA-4096 PSS SHA-512";
    if (image.trailer.format == 2) {
        const CheckValue& module = image.trailer.moduleCheck;
        const CheckValue& model = image.trailer.modelCheck;
        entries["moduleCheck"] = hexText(module.data(), module.size());
        entries["modelCheck"] = hexText(model.data(), model.size());
        entries["securityCounter"] = image.trailer.counter;
    }
    return entries;
}

Json::Value describePackage(const std::string& path, PackageType type)
{
    Json::Value entries;
    entries["package"] = path;
    entries["size"] = static_cast<Json::UInt64>(std::filesystem::file_size(path));
    entries["type"] = type == PackageType::kSquashfs ? "squashfs" : "ext4";
    return entries;
}

Json::Value describeProvisioning(const std::string& path, const ProvisioningPackageInfo& package)
{
    Json::Value entries;
    entries["provisioningPackage"] = path;
    entries["size"] = static_cast<Json::UInt64>(package.size);
    if (!package.item.empty()) {
        entries["item"] = package.item;
        entries["payloadSize"] = static_cast<Json::UInt64>(package.payloadSize);
    }
    for (const auto& [module, floor] : package.floors) {
        entries["floor." + module] = floor;
    }
    return entries;
}

/// @param words  each MODULE=NUMBER
Floors floorsOf(const std::vector<std::string>& words)
{
    Floors floors;
    for (const std::string& word : words) {
        if (!addFloor(floors, word, '=')) {
            throw ImageError(ImageFault::kUsage,
                             "'" + word + "' is not MODULE=NUMBER, once for each module");
        }
    }
    return floors;
}

void sayMade(const std::string& path, const std::string& version)
{
    std::cout << path << ": version " << version << ", " << std::filesystem::file_size(path)
              << " bytes\n";
}

}  // namespace

void keygen(const KeygenOptions& options)
{
    createKeys(options.directory, options.force);

    const std::filesystem::path directory(options.directory);
    const std::string publicKey = directory / kPublicKeyFile;
    Json::Value entries;
    entries["signingKey"] = (directory / kSigningKeyFile).string();
    entries["publicKey"] = publicKey;
    const KeyId keyId = keyIdOf(loadPublicKey(publicKey).get());
    entries["keyId"] = hexText(keyId.data(), keyId.size());
    entries["imageKey"] = (directory / kImageKeyFile).string();
    entries["provisioningKey"] = (directory / kProvisioningKeyFile).string();
    entries["provisioningCertificate"] = (directory / kProvisioningCertificateFile).string();
    entries["provisioningPackage"] = (directory / kProvisioningPackageFile).string();
    report(entries, options.json);
}

void build(const BuildOptions& options)
{
    const std::string path =
        options.stick.empty() ? options.output : stickImagePath(options.stick, options.module);
    const ImageKey imageKey = loadImageKey(options.key);
    const UniqueKey signingKey = loadSigningKey(options.signingKey);
    const auto purpose =
        options.model.empty()
            ? std::nullopt
            : std::optional(ImagePurpose{options.module, options.model, options.counter});
    buildStickImage(options.version, options.payload, imageKey, signingKey.get(), path, purpose);

    if (!options.json) {
        sayMade(path, options.version);
        return;
    }
    Json::Value entries = describe(path, inspectStickImage(path));
    entries["version"] = options.version;
    report(entries, true);
}

void package(const PackageOptions& options)
{
    const PackageContent content{options.name, options.version, options.payload,
                                 options.expectedTime};
    const std::string path = options.output.empty() ? options.name + ".img" : options.output;
    const std::uint32_t crc = buildPackage(
        content, options.type == "ext4" ? PackageType::kExt4 : PackageType::kSquashfs, path);

    if (!options.json) {
        sayMade(path, options.version);
        return;
    }
    Json::Value entries = describePackage(path, *packageTypeOf(path));
    entries["name"] = options.name;
    entries["firmware"] = firmwareNameOf(options.name) + ".bin";
    entries["version"] = options.version;
    entries["crc"] = crc;
    entries["expectedTime"] = options.expectedTime;
    report(entries, true);
}

void provision(const ProvisionOptions& options)
{
    const Floors floors = floorsOf(options.floors);
    const bool bringsItem = !options.payload.empty();
    if (!bringsItem && floors.empty()) {
        throw ImageError(ImageFault::kUsage, "--payload or --floor has to be given");
    }
    const std::string item = bringsItem ? options.item : "";
    const std::string payload = bringsItem ? readSmallFile(options.payload, kLargestItem) : "";
    const UniqueKey key = loadPrivateKey(options.key);
    const Certificates certificates = loadCertificateFile(options.certificate);
    const std::string package =
        encodeProvisioningPackage(item, payload, key.get(), certificates, floors);
    writeFile(options.output, package, Audience::kOwnerOnly);

    if (!options.json) {
        std::cout << options.output << ": " << (bringsItem ? "item " + item : "security floors")
                  << ", " << package.size() << " bytes\n";
        return;
    }
    report(describeProvisioning(options.output, {package.size(), item, payload.size(), "", floors}),
           true);
}

void info(const InfoOptions& options)
{
    if (const auto provisioning = inspectProvisioningPackage(options.image)) {
        report(describeProvisioning(options.image, *provisioning), options.json);
        return;
    }
    StickImageInfo image;
    try {
        image = inspectStickImage(options.image);
    } catch (const ImageError&) {
        // Not before, since enciphered bytes can bear a package's mark by chance.
        const std::optional<PackageType> type = packageTypeOf(options.image);
        if (!type) {
            throw;
        }
        report(describePackage(options.image, *type), options.json);
        return;
    }
    Json::Value entries = describe(options.image, image);
    if (!options.key.empty()) {
        entries["version"] = readStickImageVersion(options.image, loadImageKey(options.key));
    }
    report(entries, options.json);
}

void verify(const VerifyOptions& options)
{
    if (!options.certificateDirectory.empty()) {
        const ProvisioningPackageInfo package = verifyProvisioningPackage(
            options.image, options.certificateDirectory, options.wantsPurpose, &warn);
        Json::Value entries = describeProvisioning(options.image, package);
        entries["signedBy"] = package.signer;
        report(entries, options.json);
        return;
    }
    TrustPolicy policy;
    policy.place = "--model";
    policy.model = options.model;
    policy.floors[moduleOf(options.image)] = options.floor;
    std::string key = options.publicKey;
    if (key.empty()) {
        key = verifyStickImageByDirectory(options.image, options.trustedDirectory, &warn, policy);
    } else {
        verifyStickImage(options.image, key, policy);
    }
    Json::Value entries;
    entries["image"] = options.image;
    entries["signedBy"] = key;
    report(entries, options.json);
}

void extract(const ExtractOptions& options)
{
    const std::string version =
        extractStickImage(options.image, loadImageKey(options.key), options.output);
    Json::Value entries;
    entries["image"] = options.image;
    entries["payload"] = options.output;
    entries["size"] = static_cast<Json::UInt64>(std::filesystem::file_size(options.output));
    entries["version"] = version;
    report(entries, options.json);
}

}  // namespace quillon
