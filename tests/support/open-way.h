#pragma once

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace quillon::test {

/// Lets every user walk to `path`, whatever directories on the way are closed, as /root is: in
/// place of such a directory this device sees one that is open and holds nothing but the next step.
/// Only in a private device of root's, where nobody else sees it. What lies at the end keeps its
/// mode.
/// @return whether every user can walk there now
inline bool openWayTo(const std::filesystem::path& path)
{
    namespace fs = std::filesystem;
    const char* way = std::getenv("QUILLON_DEVICE");
    const bool isPrivate = way != nullptr && std::string(way) == "root";
    fs::path directory;
    for (const fs::path& name : path) {
        const fs::path step = directory / name;
        const bool isOpen = directory.empty() || (fs::status(directory).permissions() &
                                                  fs::perms::others_exec) != fs::perms::none;
        if (!isOpen) {
            const int content = ::open(step.c_str(), O_PATH | O_CLOEXEC);
            const bool isDirectory = fs::is_directory(step);
            if (!isPrivate || ::mount("tmpfs", directory.c_str(), "tmpfs", MS_NOSUID | MS_NODEV,
                                      "mode=755") != 0) {
                ::close(content);
                return false;
            }
            isDirectory ? static_cast<void>(fs::create_directory(step))
                        : std::ofstream(step).close();
            const std::string held = "/proc/self/fd/" + std::to_string(content);
            const int result =
                ::mount(held.c_str(), step.c_str(), nullptr, MS_BIND | MS_REC, nullptr);
            ::close(content);
            if (result != 0) {
                return false;
            }
        }
        directory = step;
    }
    return true;
}

}  // namespace quillon::test
