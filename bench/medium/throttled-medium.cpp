// A file system that shows a folder as if it lay on a slow stick: so many bytes a second, one
// request after the other. What has been read once is in the page cache, as with a real stick.
//
// Usage: throttled-medium FOLDER MOUNTPOINT BYTES-PER-SECOND
// The file ".medium" in it tells the bytes that were read from the medium and the nanoseconds that
// it was busy with them.
#define FUSE_USE_VERSION 31

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <fuse.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

namespace {

using std::chrono::nanoseconds;
using std::chrono::steady_clock;

constexpr const char* kStatistics = "/.medium";

struct Medium
{
    std::string folder;
    double bytesPerSecond = 0;
    steady_clock::time_point freeAt;
    std::uint64_t bytes = 0;
    nanoseconds busy{0};
};

Medium& medium()
{
    static Medium instance;
    return instance;
}

std::string realPath(const char* path)
{
    return medium().folder + path;
}

int resultOf(int result)
{
    return result == -1 ? -errno : 0;
}

std::string statistics()
{
    return std::to_string(medium().bytes) + " " + std::to_string(medium().busy.count()) + "\n";
}

/// Takes the medium for as long as it needs for so many bytes.
void transfer(std::size_t size)
{
    const auto takes = std::chrono::duration_cast<nanoseconds>(
        std::chrono::duration<double>(static_cast<double>(size) / medium().bytesPerSecond));
    medium().freeAt = std::max(medium().freeAt, steady_clock::now()) + takes;
    medium().bytes += size;
    medium().busy += takes;
    std::this_thread::sleep_until(medium().freeAt);
}

void* start(fuse_conn_info* /*connection*/, fuse_config* config)
{
    config->kernel_cache = 1;  // as for a disk: what is cached stays cached
    return nullptr;
}

int getAttributes(const char* path, struct stat* status, fuse_file_info* /*info*/)
{
    if (std::strcmp(path, kStatistics) == 0) {
        *status = {};
        status->st_mode = S_IFREG | 0444;
        status->st_nlink = 1;
        return 0;
    }
    return resultOf(lstat(realPath(path).c_str(), status));
}

int listFolder(const char* path, void* buffer, fuse_fill_dir_t fill, off_t /*offset*/,
               fuse_file_info* /*info*/, fuse_readdir_flags /*flags*/)
{
    DIR* folder = opendir(realPath(path).c_str());
    if (folder == nullptr) {
        return -errno;
    }
    for (const dirent* entry = readdir(folder); entry != nullptr; entry = readdir(folder)) {
        fill(buffer, entry->d_name, nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
    }
    closedir(folder);
    return 0;
}

int openFile(const char* path, fuse_file_info* info)
{
    if (std::strcmp(path, kStatistics) == 0) {
        info->direct_io = 1;
        return 0;
    }
    const int file = open(realPath(path).c_str(), O_RDONLY | O_CLOEXEC);
    info->fh = static_cast<std::uint64_t>(std::max(file, 0));
    return file == -1 ? -errno : 0;
}

int readFile(const char* path, char* buffer, std::size_t size, off_t offset, fuse_file_info* info)
{
    if (std::strcmp(path, kStatistics) == 0) {
        const std::string text = statistics();
        const auto from = std::min(static_cast<std::size_t>(offset), text.size());
        return static_cast<int>(text.copy(buffer, size, from));
    }
    const ssize_t count = pread(static_cast<int>(info->fh), buffer, size, offset);
    if (count == -1) {
        return -errno;
    }
    transfer(static_cast<std::size_t>(count));
    return static_cast<int>(count);
}

int closeFile(const char* path, fuse_file_info* info)
{
    if (std::strcmp(path, kStatistics) != 0) {
        close(static_cast<int>(info->fh));
    }
    return 0;
}

}  // namespace

int main(int count, char* arguments[])
{
    constexpr int kWrongUsage = 2;
    if (count != 4 || std::atof(arguments[3]) <= 0) {
        static_cast<void>(
            std::fputs("usage: throttled-medium FOLDER MOUNTPOINT BYTES-PER-SECOND\n", stderr));
        return kWrongUsage;
    }
    medium().folder = arguments[1];
    medium().bytesPerSecond = std::atof(arguments[3]);

    fuse_operations operations = {};
    operations.init = start;
    operations.getattr = getAttributes;
    operations.readdir = listFolder;
    operations.open = openFile;
    operations.read = readFile;
    operations.release = closeFile;
    char foreground[] = "-f";
    char singleThread[] = "-s";
    char* own[] = {arguments[0], foreground, singleThread, arguments[2], nullptr};
    return fuse_main(4, own, &operations, nullptr);
}
