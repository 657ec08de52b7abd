#include "helpers/mount/policy.h"

#include <algorithm>
#include <optional>

#include "helpers/mount/parse-request.h"

namespace quillon::privileged {

namespace {

constexpr std::string_view kMountOptions = "ro,loop,nodev,nosuid";
constexpr std::string_view kImageSuffix = ".img";

// Not isalnum(), which asks the locale.
bool isLetterOrDigit(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool isName(std::string_view text)
{
    return !text.empty() && std::all_of(text.begin(), text.end(), isLetterOrDigit);
}

/// What stands behind "directory/"; nothing when the path does not begin with it.
std::optional<std::string_view> entryOf(std::string_view directory, std::string_view path)
{
    if (path.substr(0, directory.size()) != directory || path.substr(directory.size(), 1) != "/") {
        return std::nullopt;
    }
    return path.substr(directory.size() + 1);
}

bool isImage(std::string_view path)
{
    const auto entry = entryOf(kImageDirectory, path);
    if (!entry || entry->size() <= kImageSuffix.size()) {
        return false;
    }
    const std::size_t stem = entry->size() - kImageSuffix.size();
    return entry->substr(stem) == kImageSuffix && isName(entry->substr(0, stem));
}

bool isMountPoint(std::string_view path)
{
    const auto entry = entryOf(kMountDirectory, path);
    return entry && isName(*entry);
}

std::string lastPart(std::string_view path)
{
    return std::string(path.substr(path.rfind('/') + 1));
}

/// The number of a loop device; nothing unless it is written the one way that we write it.
std::optional<unsigned> loopNumber(std::string_view digits)
{
    for (unsigned number = 0; number < kLoopNodes; ++number) {
        if (std::to_string(number) == digits) {
            return number;
        }
    }
    return std::nullopt;
}

}  // namespace

const char* describe(Refusal refusal)
{
    switch (refusal) {
        case Refusal::kNone:
            return "nothing against it";
        case Refusal::kShape:
            return "not the text of such a request";
        case Refusal::kOptions:
            return "the mount options are not ro,loop,nodev,nosuid";
        case Refusal::kImage:
            return "the source is not an image NAME.img in the package directory";
        case Refusal::kDirectory:
            return "the mount point is not a directory NAME in emps/ of the package directory";
        case Refusal::kMode:
            return "the mode is not 0660";
        case Refusal::kLabel:
            return "the label is not *";
        case Refusal::kNode:
            return "not the node of a loop device from 0 to 249";
    }
    return "?";
}

Refusal judgeMount(std::string_view text, MountOrder& order)
{
    const auto fields = parseMount(text);
    if (!fields) {
        return Refusal::kShape;
    }
    if (fields->options != kMountOptions) {
        return Refusal::kOptions;
    }
    if (!isImage(fields->image)) {
        return Refusal::kImage;
    }
    if (!isMountPoint(fields->directory)) {
        return Refusal::kDirectory;
    }
    order = {lastPart(fields->image), lastPart(fields->directory)};
    return Refusal::kNone;
}

Refusal judgeNode(std::string_view text, NodeOrder& order)
{
    const auto fields = parseNode(text);
    if (!fields) {
        return Refusal::kShape;
    }
    if (fields->mode != "0660") {
        return Refusal::kMode;
    }
    if (fields->label != "*") {
        return Refusal::kLabel;
    }
    const auto number = loopNumber(fields->minor);
    if (!number || fields->major != std::to_string(kLoopMajor) ||
        fields->node != "/dev/loop" + std::to_string(*number)) {
        return Refusal::kNode;
    }
    order = {*number};
    return Refusal::kNone;
}

Refusal judgeUnmount(std::string_view text, UnmountOrder& order)
{
    if (!isMountPoint(text)) {
        return Refusal::kDirectory;
    }
    order = {lastPart(text)};
    return Refusal::kNone;
}

}  // namespace quillon::privileged
