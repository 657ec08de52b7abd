#include "base/mappings.h"

#include <sys/sysmacros.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <system_error>

namespace quillon {

namespace {

namespace fs = std::filesystem;

constexpr int kLooks = 100;

bool isOfFile(const std::string& line, const struct stat& file)
{
    unsigned int major = 0;
    unsigned int minor = 0;
    unsigned long long inode = 0;
    // NOLINTNEXTLINE(cert-err34-c): the kernel writes these numbers
    return std::sscanf(line.c_str(), "%*s %*s %*s %x:%x %llu", &major, &minor, &inode) == 3 &&
           inode == file.st_ino && makedev(major, minor) == file.st_dev;
}

bool hasEnded(int error)
{
    return error == ENOENT || error == ESRCH;
}

/// @return as mappingIn
std::optional<Mapping> mappingOfThread(const fs::path& directory, const struct stat& file)
{
    errno = 0;
    std::ifstream maps(directory / "maps");
    if (!maps) {
        return hasEnded(errno) ? std::nullopt : std::optional(Mapping::kHidden);
    }
    return mappingIn(maps, file);
}

}  // namespace

std::optional<Mapping> mappingIn(std::istream& maps, const struct stat& file)
{
    bool isEmpty = true;
    errno = 0;
    for (std::string line; std::getline(maps, line); isEmpty = false) {
        if (isOfFile(line, file)) {
            return Mapping::kHas;
        }
    }
    if (maps.bad()) {
        return hasEnded(errno) ? std::nullopt : std::optional(Mapping::kHidden);
    }
    return isEmpty ? std::nullopt : std::optional(Mapping::kNone);
}

Mapping mappingOf(pid_t process, const struct stat& file)
{
    const std::string number = std::to_string(process);
    const fs::path threads = fs::path("/proc") / number / "task";
    for (int look = 0; look < kLooks; ++look) {
        bool hasOthers = false;
        std::error_code error;
        for (fs::directory_iterator thread(threads, error), end; !error && thread != end;
             thread.increment(error)) {
            if (const std::optional<Mapping> mapping = mappingOfThread(thread->path(), file)) {
                return *mapping;  // all threads have the same memory
            }
            hasOthers = hasOthers || thread->path().filename() != number;
        }
        if (error == std::errc::no_such_file_or_directory || error == std::errc::no_such_process) {
            return Mapping::kNone;
        }
        if (error) {
            return Mapping::kHidden;
        }
        // Others than the main thread leave no trace when they have ended. One that was there a
        // moment ago may have started the next.
        if (!hasOthers) {
            return Mapping::kNone;
        }
    }
    return Mapping::kHidden;
}

}  // namespace quillon
