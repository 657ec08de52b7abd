#ifndef QUILLON_BENCH_MEDIUM_MOUNTED_MEDIUM_H
#define QUILLON_BENCH_MEDIUM_MOUNTED_MEDIUM_H

#include <cstdint>
#include <string>

#include <sys/types.h>

namespace quillon::bench {

/// A folder that is shown as if it lay on a slow stick, by throttled-medium. Works within a virtual
/// device; unmounted at the end of the object's life. Everything throws std::runtime_error, or what
/// it derives from.
class MountedMedium
{
public:
    /// @param program  throttled-medium
    /// @param folder   what is shown
    /// @param place    where; made when missing; ends in "/"
    MountedMedium(const std::string& program, const std::string& folder, std::string place,
                  double bytesPerSecond);
    ~MountedMedium();
    MountedMedium(const MountedMedium&) = delete;
    MountedMedium& operator=(const MountedMedium&) = delete;

    struct Use
    {
        std::uint64_t bytes = 0;  ///< read from the medium, not from the page cache
        double busySeconds = 0;
    };
    /// Since it was mounted.
    Use use() const;

private:
    std::string place_;
    pid_t pid_ = -1;
};

/// Takes a file out of the page cache.
/// @return the share of it that is in there afterwards, 0 to 1
/// @throws std::system_error when the file cannot be opened
double dropFromCache(const std::string& path);

}  // namespace quillon::bench

#endif
