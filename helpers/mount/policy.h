#ifndef QUILLON_HELPERS_MOUNT_POLICY_H
#define QUILLON_HELPERS_MOUNT_POLICY_H

#include <string>
#include <string_view>

/// What the helper does at all. Pure: it looks at texts, not at the file system. What it lets pass
/// is only names and a number, to be looked up in fixed directories, so that nothing else of a
/// request ever reaches a system call.
namespace quillon::privileged {

inline constexpr const char* kImageDirectory = "/opt/usr/apps/appbinarymanager";
inline constexpr const char* kMountDirectory = "/opt/usr/apps/appbinarymanager/emps";
inline constexpr unsigned kLoopMajor = 7;
inline constexpr unsigned kLoopNodes = 250;  ///< numbers run from 0 up to, not including, this

/// Why a request is refused.
enum class Refusal {
    kNone,
    kShape,      ///< not the text of such a request at all
    kOptions,    ///< other mount options than ro,loop,nodev,nosuid
    kImage,      ///< not an image NAME.img directly in the package directory
    kDirectory,  ///< not a directory NAME directly in the directory for mounts
    kMode,       ///< another mode than 0660
    kLabel,      ///< another label than "*"
    kNode,       ///< not the block device /dev/loopN 7 N with N below 250
};

/// One line for the log.
const char* describe(Refusal refusal);

/// NAME in all of these: one or more of A-Z a-z 0-9.
struct MountOrder
{
    std::string image;      ///< file name in kImageDirectory: NAME.img
    std::string directory;  ///< directory name in kMountDirectory: NAME
};

struct NodeOrder
{
    unsigned number = 0;  ///< below kLoopNodes
};

struct UnmountOrder
{
    std::string directory;  ///< directory name in kMountDirectory: NAME
};

/// @param text        as the client sent it
/// @param[out] order  what to do when the answer is Refusal::kNone, untouched otherwise
Refusal judgeMount(std::string_view text, MountOrder& order);
Refusal judgeNode(std::string_view text, NodeOrder& order);
Refusal judgeUnmount(std::string_view text, UnmountOrder& order);

}  // namespace quillon::privileged

#endif
