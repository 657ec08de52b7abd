#pragma once

#include <string>

/// Mounts an image file read-only through the platform's privileged service, and has the service
/// make the next loop device node when all that exist are in use.
///
/// @param src      path of the image file
/// @param dest     the directory to mount it on
/// @param options  mount options, comma-separated
/// @return true when mounted; each failed attempt is logged.
/// Raises boost::filesystem::filesystem_error when the devices cannot be listed. Thread: any.
bool loop_mount(const char* src, const char* dest, const char* options);

/// Number of loop devices that are mounted, as the mount table lists them.
/// @return 0 as well when the table cannot be read.
int countMountedLoopDevices();

/// Number of loop device nodes, not counting the control device.
/// Raises boost::filesystem::filesystem_error when the devices cannot be listed.
int countPresentLoopDevices();

/// Whether the path leads to a regular file.
bool IsFile(const char* path);

/// Whether the path leads to a directory.
bool IsDir(const char* path);

/// Mounts and unmounts packages. It keeps no state: what is mounted is the system's own record.
/// Thread: any; the privileged service puts the mounts one after another.
class FWMountManager
{
public:
    /// The one instance, made on first use.
    static FWMountManager* getInstance();

    /// Mounts an image file read-only on a directory, which is made if it is not there and stays
    /// whatever comes of the mount.
    /// @return 0, or -1 (logged). Raises what loop_mount raises.
    int Mount(const std::string& src, const std::string& dest);

    /// Unmounts a directory and leaves it in place.
    /// @return 0, or -1 (logged).
    int UMount(const std::string& dir);

    FWMountManager(const FWMountManager&) = delete;
    FWMountManager& operator=(const FWMountManager&) = delete;

private:
    FWMountManager() = default;
};
