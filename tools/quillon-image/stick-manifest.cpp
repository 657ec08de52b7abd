#include "tools/quillon-image/stick-manifest.h"

#include <json/json.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <map>
#include <memory>
#include <set>

#include "platform/verifier/image-error.h"
#include "platform/verifier/input-file.h"
#include "platform/verifier/security-floors.h"
#include "tools/quillon-image/scratch-directory.h"
#include "tools/quillon-image/token-key.h"

namespace quillon {
namespace {

constexpr std::size_t kLargestManifest = 1048576;

constexpr char kRemedy[] = ": give a new directory, and copy its images to the stick";

using Names = std::set<std::string>;

[[noreturn]] void refuse(const std::string& place, const std::string& reason)
{
    throw ImageError(ImageFault::kUsage, place + ": " + reason);
}

/// Does a part of the work for an entry, whose place a refusal tells.
template <typename Work>
auto inPlace(const std::string& place, Work work)
{
    try {
        return work();
    } catch (const ImageError& error) {
        throw ImageError(error.fault(), place + ": " + error.what());
    }
}

std::string asOneLine(std::string text)
{
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text.substr(0, text.find_last_not_of(' ') + 1);
}

Json::Value parse(const std::string& path)
{
    const std::string text = readSmallFile(path, kLargestManifest);
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    std::string errors;
    try {
        if (reader->parse(text.data(), text.data() + text.size(), &root, &errors)) {
            return root;
        }
    } catch (const Json::Exception& error) {  // nested too deeply
        errors = error.what();
    }
    refuse(path, "not a JSON object: " + asOneLine(errors));
}

void requireMembers(const Json::Value& object, const std::string& place, const Names& known)
{
    if (!object.isObject()) {
        refuse(place, "not a JSON object");
    }
    for (const std::string& name : object.getMemberNames()) {
        if (known.count(name) == 0) {
            std::string list;
            for (const std::string& other : known) {
                list += (list.empty() ? "" : ", ") + other;
            }
            refuse(place, "unknown member " + Json::valueToQuotedString(name.c_str()) +
                              "; there are " + list);
        }
    }
}

/// Reads the members of an entry; what it does not say, the manifest says for all of them.
class EntryReader
{
public:
    EntryReader(const Json::Value& entry, const Json::Value& manifest, const std::string& place,
                const std::filesystem::path& directory)
        : entry_(entry), manifest_(manifest), place_(place), directory_(directory)
    {
    }

    /// @return the text; empty when neither has it.
    std::string optionalText(const char* name) const
    {
        const Json::Value& value = entry_.isMember(name) ? entry_[name] : manifest_[name];
        if (!value.isNull() && (!value.isString() || value.asString().empty())) {
            refuse(place_, "\"" + std::string(name) + "\" has to be a text that is not empty");
        }
        return value.asString();
    }

    std::string text(const char* name) const
    {
        std::string value = optionalText(name);
        if (value.empty()) {
            refuse(place_, "\"" + std::string(name) + "\" is missing: add it");
        }
        return value;
    }

    std::string path(const char* name) const { return absolute(text(name)); }

    std::string absolute(const std::string& path) const
    {
        return path.empty() || isTokenKey(path) ? path : (directory_ / path).string();
    }

    std::optional<ImagePurpose> purpose(const std::string& module) const
    {
        const std::string model = optionalText("model");
        const Json::Value& counter = entry_["counter"];
        if (model.empty() != counter.isNull()) {
            refuse(place_, model.empty() ? "\"counter\" needs a \"model\": add it, or remove both"
                                         : "\"model\" needs the entry's \"counter\": add it");
        }
        if (model.empty()) {
            return std::nullopt;
        }
        if (!counter.isUInt()) {
            refuse(place_, "\"counter\" has to be a number from 0 to 4294967295");
        }
        return ImagePurpose{module, model, counter.asUInt()};
    }

private:
    const Json::Value& entry_;
    const Json::Value& manifest_;
    std::string place_;
    std::filesystem::path directory_;
};

std::string inLowerCase(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char character) {
        return static_cast<char>(std::tolower(character));
    });
    return text;
}

StickEntry readEntry(const EntryReader& reader, const std::string& place)
{
    StickEntry entry;
    entry.place = place;
    entry.module = reader.text("name");
    entry.version = reader.text("version");
    entry.payload = reader.path("payload");
    entry.imageKey = reader.path("imageKey");
    entry.signingKey = reader.path("signingKey");
    entry.purpose = reader.purpose(entry.module);
    inPlace(place, [&entry] {
        requireVersion(entry.version);
        stickImagePath("", entry.module);
        if (entry.purpose) {
            requirePurpose(*entry.purpose);
        }
    });
    return entry;
}

}  // namespace

StickManifest loadManifest(const std::string& path)
{
    const Json::Value root = parse(path);
    requireMembers(root, path, {"imageKey", "model", "modules", "output", "signingKey"});
    const std::filesystem::path directory = std::filesystem::path(path).parent_path();
    const Json::Value& modules = root["modules"];
    if (!modules.isArray() || modules.empty()) {
        refuse(path, "\"modules\" has to be an array with an entry for each module");
    }
    const EntryReader whole(root, root, path, directory);
    StickManifest manifest{whole.absolute(whole.optionalText("output")), {}};
    std::map<std::string, std::string> places;
    for (const Json::Value& module : modules) {
        std::string place = path + ": modules[" + std::to_string(manifest.entries.size()) + "]";
        if (module.isObject() && module["name"].isString() &&
            isModuleName(module["name"].asString())) {
            place += " (" + module["name"].asString() + ")";
        }
        requireMembers(
            module, place,
            {"counter", "imageKey", "model", "name", "payload", "signingKey", "version"});
        manifest.entries.push_back(readEntry({module, root, place, directory}, place));
        // The file system of a stick may take both for the same file.
        const auto [other, isNew] =
            places.emplace(inLowerCase(manifest.entries.back().module), place);
        if (!isNew) {
            refuse(place, "the same file name as in " + other->second +
                              ": keep one, names differ in more than upper and lower case");
        }
    }
    return manifest;
}

void makeStick(const std::vector<StickEntry>& entries, const std::string& directory, Making making)
{
    // Looked at before the long work.
    std::map<std::string, ImageKey> imageKeys;
    std::map<std::string, UniqueKey> signingKeys;
    for (const StickEntry& entry : entries) {
        inPlace(entry.place, [&] {
            if (imageKeys.count(entry.imageKey) == 0) {
                imageKeys.emplace(entry.imageKey, loadImageKey(entry.imageKey));
            }
            if (signingKeys.count(entry.signingKey) == 0) {
                signingKeys.emplace(entry.signingKey, loadSigningKey(entry.signingKey));
            }
            InputFile{entry.payload};
        });
    }
    const std::filesystem::path target =
        (std::filesystem::absolute(directory) / "").parent_path().lexically_normal();
    std::error_code error;
    if (std::filesystem::exists(target, error) && !std::filesystem::is_empty(target, error)) {
        throw ImageError(ImageFault::kFile,
                         directory +
                             ": exists and is not empty: give a new directory, and copy "
                             "its images to the stick");
    }

    const HeldSignals signals;
    ScratchDirectory scratch(target.string());
    for (const StickEntry& entry : entries) {
        inPlace(entry.place, [&] {
            buildStickImage(entry.version, entry.payload, imageKeys.at(entry.imageKey),
                            signingKeys.at(entry.signingKey).get(),
                            stickImagePath(scratch.path(), entry.module), entry.purpose, making);
        });
    }
    signals.requireNone();
    try {
        scratch.renameTo(target.string());
    } catch (const ImageError& failure) {  // such as a mounted stick
        throw ImageError(failure.fault(), failure.what() + std::string(kRemedy));
    }
}

}  // namespace quillon
