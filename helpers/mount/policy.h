#pragma once

#include <string>
#include <string_view>

/// What the helper does at all. Pure: it looks at texts, not at the file system. What it lets pass
/// is only names and a number, to be looked up in fixed directories, so that nothing else of a
/// request ever reaches a system call.
///
/// Each function takes a text as the client sent it and throws a Failure with EACCES, which names
/// the reason, when the request is refused. NAME is one or more of A-Z a-z 0-9.
namespace quillon::privileged {

inline constexpr const char* kImageDirectory = "/opt/usr/apps/appbinarymanager";
inline constexpr const char* kMountDirectory = "/opt/usr/apps/appbinarymanager/emps";
inline constexpr unsigned kLoopMajor = 7;
inline constexpr unsigned kLoopNodes = 250;  ///< numbers run from 0 up to, not including, this

struct MountOrder
{
    std::string image;      ///< file name in kImageDirectory: NAME.img
    std::string directory;  ///< directory name in kMountDirectory: NAME
};

MountOrder judgeMount(std::string_view text);

/// @return the number of the loop device
unsigned judgeNode(std::string_view text);

/// @return the directory name in kMountDirectory: NAME
std::string judgeUnmount(std::string_view text);

}  // namespace quillon::privileged
