#ifndef QUILLON_PLATFORM_LINUX_FILES_H
#define QUILLON_PLATFORM_LINUX_FILES_H

#include <sys/types.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace quillon {

/// Owns one file descriptor and closes it.
class UniqueFd
{
public:
    explicit UniqueFd(int fd = -1) : fd_(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept;
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    explicit operator bool() const { return fd_ >= 0; }
    int get() const { return fd_; }
    int release();

private:
    void reset();  // leaves errno as it was

    int fd_;
};

/// Allocates as usual and wipes what it gives back, so that keys do not stay in freed memory.
template <typename T>
struct WipingAllocator
{
    using value_type = T;
    WipingAllocator() = default;
    template <typename U>
    explicit WipingAllocator(const WipingAllocator<U>&)
    {
    }
    T* allocate(std::size_t count) { return std::allocator<T>().allocate(count); }
    void deallocate(T* memory, std::size_t count)
    {
        explicit_bzero(memory, count * sizeof(T));
        std::allocator<T>().deallocate(memory, count);
    }
    bool operator==(const WipingAllocator&) const { return true; }
    bool operator!=(const WipingAllocator&) const { return false; }
};

using SecretBytes = std::vector<unsigned char, WipingAllocator<unsigned char>>;

enum class FileResult { kOk, kMissing, kNotRegular, kTooLarge, kFailed };

/// Opens a file for reading if it is a regular one; never blocks, whatever the path names.
/// @param extraFlags  more flags for open, for example O_NOFOLLOW
/// @param[out] fd     the file on kOk, untouched otherwise
/// @return kOk, kMissing, kNotRegular (also for a link that was not followed) or kFailed; except on
///         kOk and kNotRegular errno tells why.
FileResult openRegularFile(const char* path, int extraFlags, UniqueFd& fd);

/// Reads a file from its present position to its end.
/// @param limit        largest number of bytes that is accepted
/// @param[out] bytes   the contents on kOk; anything otherwise
/// @return kOk, kTooLarge or kFailed with errno telling why. Throws std::bad_alloc.
FileResult readToEnd(int fd, std::size_t limit, SecretBytes& bytes);

/// Makes a folder and the folders above it. Those above get mode 0755, the folder itself `mode`; a
/// folder that is there already stays as it is.
/// @return false with errno telling why. Throws std::bad_alloc.
bool makeFolders(const std::string& path, mode_t mode);

/// Puts a file in place in one step, also where the power fails: whoever opens it sees either the
/// old contents or all of the new ones. A link of that name is replaced, never followed.
/// @param folder  must exist
/// @param name    file name without "/"
/// @param mode    of the file, whatever the umask
/// @return false with errno telling why; the folder is then as it was. Throws std::bad_alloc.
bool replaceFile(const std::string& folder, const std::string& name, const SecretBytes& bytes,
                 mode_t mode = 0600);

}  // namespace quillon

#endif
