#include "tools/quillon-device/mirror.h"

#include <algorithm>
#include <filesystem>

#include "tools/quillon-device/device-paths.h"
#include "tools/quillon-device/mounts.h"

namespace fs = std::filesystem;

namespace quillon::device {

namespace {

bool staysWritable(const std::string& host, fs::perms mode)
{
    return isWithin(host, "/tmp") || (mode & fs::perms::others_write) != fs::perms::none;
}

void bindEntry(const std::string& host, const std::string& target, const fs::file_status& status)
{
    if (fs::is_directory(status)) {
        makeDirectoryLike(target, host);
    } else {
        makeFile(target);
    }
    if (!bindTree(host, target)) {
        std::error_code ignored;  // the entry went away meanwhile, as entries of /tmp do
        fs::remove(target, ignored);
        return;
    }
    if (!staysWritable(host, status.permissions())) {
        makeReadOnly(target);
    }
}

void mirrorEntry(const std::string& host, const std::string& target,
                 const std::vector<std::string>& directories,
                 const std::vector<std::string>& hidden)
{
    std::error_code gone;
    const fs::file_status status = fs::symlink_status(host, gone);
    if (std::find(hidden.begin(), hidden.end(), host) != hidden.end()) {
        if (fs::is_directory(status)) {
            makeDirectoryLike(target, host);
        }
    } else if (fs::is_symlink(status)) {
        const fs::path goal = fs::read_symlink(host, gone);
        if (!gone) {
            fs::create_symlink(goal, target);
        }
    } else if (fs::is_directory(status) && isOnTheWay(host, directories)) {
        mirrorDirectory(host, target, directories, hidden);
    } else if (fs::exists(status)) {
        bindEntry(host, target, status);
    }
}

}  // namespace

void mirrorDirectory(const std::string& host, const std::string& mirror,
                     const std::vector<std::string>& directories,
                     const std::vector<std::string>& hidden)
{
    makeDirectoryLike(mirror, host);
    for (const fs::directory_entry& entry : fs::directory_iterator(host)) {
        mirrorEntry(entry.path().string(), mirror + "/" + entry.path().filename().string(),
                    directories, hidden);
    }
    for (const std::string& directory : directories) {
        if (directory != host && isWithin(directory, host)) {
            fs::create_directories(mirror + directory.substr(host.size()));
        }
    }
}

}  // namespace quillon::device
