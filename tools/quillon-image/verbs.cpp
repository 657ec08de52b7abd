#include "tools/quillon-image/verbs.h"

#include <json/json.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <set>

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
#include "tools/quillon-image/stick-manifest.h"

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

Making makingOf(bool reproducible)
{
    return reproducible ? Making::kReproducible : Making::kRandom;
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
    buildStickImage(options.version, options.payload, imageKey, signingKey.get(), path, purpose,
                    makingOf(options.reproducible));

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
    Json::Value entries;
    entries["image"] = options.image;
    entries["signedBy"] = verifyStickImage(
        options.image, {options.publicKey, options.trustedDirectory, &warn}, policy);
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

void stick(const StickOptions& options)
{
    const StickManifest manifest = loadManifest(options.manifest);
    const std::string& directory = options.output.empty() ? manifest.output : options.output;
    if (directory.empty()) {
        throw ImageError(ImageFault::kUsage,
                         options.manifest + ": \"output\" is missing: add it, or give --output");
    }
    makeStick(manifest.entries, directory, makingOf(options.reproducible));

    Json::Value images(Json::arrayValue);
    for (const StickEntry& entry : manifest.entries) {
        const std::string path = stickImagePath(directory, entry.module);
        if (!options.json) {
            sayMade(path, entry.version);
            continue;
        }
        Json::Value image = describe(path, inspectStickImage(path));
        image["module"] = entry.module;
        image["version"] = entry.version;
        images.append(image);
    }
    if (options.json) {
        Json::Value entries;
        entries["stick"] = directory;
        entries["images"] = images;
        report(entries, true);
    }
}

void resign(const ResignOptions& options)
{
    const std::string module = options.module.empty() ? moduleOf(options.image) : options.module;
    const std::string& oldModel = options.oldModel.empty() ? options.model : options.oldModel;
    std::string signedBefore;
    const auto judge = [&](const ImageTrailer& trailer,
                           const ContentDigest& content) -> std::optional<ImagePurpose> {
        if (trailer.format == 2 && (module.empty() || options.model.empty())) {
            throw ImageError(ImageFault::kUsage, options.image +
                                                     ": its trailer has format 2, and "
                                                     "keeps it: give --module and "
                                                     "--model");
        }
        if (!options.force) {
            signedBefore = requireSignedBy(
                {options.publicKey, options.trustedDirectory, &warn}, trailer, options.image,
                {module, oldModel, trailer.counter}, [&content] { return content; });
        }
        if (options.model.empty()) {
            return std::nullopt;
        }
        if (module.empty()) {
            throw ImageError(ImageFault::kUsage,
                             options.image + ": its name is not that of a module: give --module");
        }
        if (trailer.format == 1 && !options.counter) {
            throw ImageError(ImageFault::kUsage,
                             options.image +
                                 ": its trailer of format 1 has no security counter: "
                                 "give --counter");
        }
        return ImagePurpose{module, options.model, options.counter.value_or(trailer.counter)};
    };
    const UniqueKey signingKey = loadSigningKey(options.signingKey);
    resignStickImage(options.image, judge, signingKey.get(), options.output,
                     makingOf(options.reproducible));

    Json::Value entries = describe(options.output, inspectStickImage(options.output));
    if (!options.force) {
        entries["signedBefore"] = signedBefore;
    }
    report(entries, options.json);
}

bool diff(const DiffOptions& options)
{
    const auto read = [&options](const std::string& path, std::size_t keyIndex) {
        std::optional<ImageKey> key;
        if (!options.keys.empty()) {
            key = loadImageKey(options.keys.at(std::min(keyIndex, options.keys.size() - 1)));
        }
        Json::Value entries = describe(path, inspectStickImage(path));
        entries.removeMember("image");
        const StickImageDigests digests = digestStickImage(path, key);
        entries["ciphertextDigest"] = digests.ciphertext;
        entries["signatureDigest"] = digests.signature;
        if (key) {
            entries["payloadDigest"] = digests.payload;
            entries["version"] = readStickImageVersion(path, *key);
        }
        return entries;
    };
    Json::Value first = read(options.first, 0);
    Json::Value second = read(options.second, 1);
    // Format 2 tells less of the key's id.
    const std::size_t idLength =
        std::min(first["keyId"].asString().size(), second["keyId"].asString().size());
    for (Json::Value* entries : {&first, &second}) {
        (*entries)["keyId"] = (*entries)["keyId"].asString().substr(0, idLength);
    }

    std::set<std::string> names;
    for (const Json::Value* entries : {&first, &second}) {
        for (const std::string& name : entries->getMemberNames()) {
            names.insert(name);
        }
    }
    Json::Value differences(Json::objectValue);
    for (const std::string& name : names) {
        if (first[name] != second[name]) {
            differences[name].append(first[name]);
            differences[name].append(second[name]);
        }
    }
    if (options.json) {
        Json::Value entries;
        entries["first"] = options.first;
        entries["second"] = options.second;
        entries["differences"] = differences;
        report(entries, true);
        return differences.empty();
    }
    const auto textOf = [](const Json::Value& value) {
        return value.isNull() ? "none" : value.asString();
    };
    for (const std::string& name : differences.getMemberNames()) {
        std::cout << name << ": " << textOf(differences[name][0]) << " -> "
                  << textOf(differences[name][1]) << '\n';
    }
    return differences.empty();
}

}  // namespace quillon
