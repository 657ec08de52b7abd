// The image key lies in a file that the factory has written. A device with a secure element or a
// trusted execution environment asks that instead.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/log.h"
#include "platform/secure-storage.h"

#ifndef DEVICE_KEYS
#define DEVICE_KEYS "/var/lib/quillon/keys"
#endif

namespace {

constexpr int kOk = 0;
constexpr int kFailed = 1;
constexpr int kMissing = 5;  // the service then asks for the provisioning package
constexpr std::size_t kLargestItem = 4096;

bool isItemName(const char* item)
{
    return item != nullptr && *item != '\0' && *item != '.' && std::strchr(item, '/') == nullptr;
}

// Every buffer has the same size, so that giving one back knows how much to wipe.
unsigned char* makeBuffer()
{
    return static_cast<unsigned char*>(std::calloc(kLargestItem, 1));
}

// @return the bytes read; 0 or less: nothing, or no file of a size that an item may have
ssize_t readItem(int file, unsigned char* buffer)
{
    struct stat status = {};
    if (fstat(file, &status) != 0 || !S_ISREG(status.st_mode) || status.st_size <= 0 ||
        status.st_size > static_cast<off_t>(kLargestItem)) {
        return -1;
    }
    const ssize_t length = read(file, buffer, kLargestItem);
    return length == status.st_size ? length : -1;
}

}  // namespace

// Who may read a key is a matter of its file's owner and mode.
int ss_init_credential(ss_credential* credential, uint32_t word0, uint32_t word1, uint32_t word2,
                       uint32_t word3, uint32_t word4, int flag0, int flag1)
{
    if (credential == nullptr) {
        return kFailed;
    }
    *credential = {{word0, word1, word2, word3, word4}, {flag0, flag1}, {}};
    return kOk;
}

int ss_read(unsigned char** data, size_t* size, int /*reserved0*/, int /*reserved1*/,
            const char* item, ss_credential* /*credential*/, unsigned int /*mode*/)
{
    if (data == nullptr || size == nullptr || !isItemName(item)) {
        return kFailed;
    }
    const std::string path = std::string(DEVICE_KEYS "/") + item;
    const int file = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (file == -1) {
        return errno == ENOENT ? kMissing : kFailed;
    }
    unsigned char* const buffer = makeBuffer();
    const ssize_t length = buffer == nullptr ? -1 : readItem(file, buffer);
    close(file);
    if (length <= 0) {
        ss_free_buffer(buffer);
        __dlog_print(2, 6, "DEVICE", "%s holds no key", path.c_str());
        return kFailed;
    }
    *data = buffer;
    *size = static_cast<size_t>(length);
    return kOk;
}

void ss_free_buffer(unsigned char* data)
{
    if (data != nullptr) {
        explicit_bzero(data, kLargestItem);
        std::free(data);
    }
}

// This device gets its key in the factory and from nowhere else.
int sdp_install_from_file(const char* path, int /*kind*/, int /*reserved*/)
{
    __dlog_print(2, 6, "DEVICE", "%s: this device installs no provisioning packages",
                 path == nullptr ? "?" : path);
    return kFailed;
}
