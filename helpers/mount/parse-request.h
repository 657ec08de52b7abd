#ifndef QUILLON_HELPERS_MOUNT_PARSE_REQUEST_H
#define QUILLON_HELPERS_MOUNT_PARSE_REQUEST_H

#include <optional>
#include <string_view>

/// The shape of the request texts. What the fields may hold is the policy's business.
/// Everything here is pure; fields point into the text that was parsed.
namespace quillon::privileged {

/// "-o OPTIONS IMAGE DIRECTORY"
struct MountFields
{
    std::string_view options;
    std::string_view image;
    std::string_view directory;
};

/// "-m MODE -Z LABEL NODE  b MAJOR MINOR"
struct NodeFields
{
    std::string_view mode;
    std::string_view label;
    std::string_view node;
    std::string_view major;
    std::string_view minor;
};

/// Takes a text to pieces. Each blank has to be where it stands above and nowhere else; a field
/// has one or more characters from '!' to '~'.
/// @return nothing for a text of another shape
std::optional<MountFields> parseMount(std::string_view text);
std::optional<NodeFields> parseNode(std::string_view text);

}  // namespace quillon::privileged

#endif
