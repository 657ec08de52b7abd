#include "helpers/mount/policy.h"

#include <algorithm>
#include <optional>
#include <vector>

#include "base/alphanumeric.h"
#include "helpers/shared/failure.h"

namespace quillon::privileged {

namespace {

using Words = std::vector<std::string_view>;

constexpr std::string_view kImageSuffix = ".img";
constexpr const char* kOtherShape = "not the text of such a request";
constexpr const char* kNoMountPoint =
    "the mount point is not a directory NAME in emps/ of the package directory";

void require(bool isFine, const char* reason)
{
    if (!isFine) {
        throw Failure(EACCES, reason);
    }
}

/// What stands between blanks; two blanks have an empty word between them.
Words wordsOf(std::string_view text)
{
    Words words;
    for (;;) {
        const std::size_t end = text.find(' ');
        words.push_back(text.substr(0, end));
        if (end == text.npos) {
            return words;
        }
        text.remove_prefix(end + 1);
    }
}

bool isFieldCharacter(char c)
{
    return c >= '!' && c <= '~';
}

/// The words of a text that stand where the pattern has a "?"; all others have to be as there.
Words fieldsOf(std::string_view text, std::string_view pattern)
{
    const Words wanted = wordsOf(pattern);
    const Words words = wordsOf(text);
    require(words.size() == wanted.size(), kOtherShape);
    Words fields;
    for (std::size_t i = 0; i < words.size(); ++i) {
        if (wanted[i] != "?") {
            require(words[i] == wanted[i], kOtherShape);
            continue;
        }
        require(
            !words[i].empty() && std::all_of(words[i].begin(), words[i].end(), isFieldCharacter),
            kOtherShape);
        fields.push_back(words[i]);
    }
    return fields;
}

/// What stands behind "directory/"; empty when the path does not begin with it.
std::string_view entryOf(std::string_view directory, std::string_view path)
{
    const bool isIn =
        path.substr(0, directory.size()) == directory && path.substr(directory.size(), 1) == "/";
    return isIn ? path.substr(directory.size() + 1) : "";
}

bool isImage(std::string_view path)
{
    const std::string_view entry = entryOf(kImageDirectory, path);
    const std::size_t stem = entry.size() - std::min(entry.size(), kImageSuffix.size());
    return entry.substr(stem) == kImageSuffix && isAlphanumeric(entry.substr(0, stem));
}

bool isMountPoint(std::string_view path)
{
    return isAlphanumeric(entryOf(kMountDirectory, path));
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

MountOrder judgeMount(std::string_view text)
{
    const Words fields = fieldsOf(text, "-o ? ? ?");
    require(fields[0] == "ro,loop,nodev,nosuid", "the mount options are not ro,loop,nodev,nosuid");
    require(isImage(fields[1]), "the source is not an image NAME.img in the package directory");
    require(isMountPoint(fields[2]), kNoMountPoint);
    return {lastPart(fields[1]), lastPart(fields[2])};
}

unsigned judgeNode(std::string_view text)
{
    const Words fields = fieldsOf(text, "-m ? -Z ? ?  b ? ?");
    require(fields[0] == "0660", "the mode is not 0660");
    require(fields[1] == "*", "the label is not *");
    const auto number = loopNumber(fields[4]);
    require(number && fields[3] == std::to_string(kLoopMajor) &&
                fields[2] == "/dev/loop" + std::to_string(*number),
            "not the node of a loop device from 0 to 249");
    return *number;
}

std::string judgeUnmount(std::string_view text)
{
    require(isMountPoint(text), kNoMountPoint);
    return lastPart(text);
}

}  // namespace quillon::privileged
