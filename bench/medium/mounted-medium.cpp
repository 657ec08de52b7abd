#include "medium/mounted-medium.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace fs = std::filesystem;

namespace quillon::bench {
namespace {

constexpr int kLongestWait = 500;  // times 10 ms

[[noreturn]] void fail(const std::string& what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

class File
{
public:
    explicit File(const std::string& path) : fd_(open(path.c_str(), O_RDONLY | O_CLOEXEC))
    {
        if (fd_ == -1) {
            fail(path);
        }
    }
    ~File() { close(fd_); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    int fd() const { return fd_; }

private:
    int fd_;
};

double shareInCache(int file, std::size_t size)
{
    if (size == 0) {
        return 0;
    }
    void* pages = mmap(nullptr, size, PROT_READ, MAP_SHARED, file, 0);
    if (pages == MAP_FAILED) {
        fail("mmap");
    }
    const auto pageSize = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    std::vector<unsigned char> present((size + pageSize - 1) / pageSize);
    const int result = mincore(pages, size, present.data());
    munmap(pages, size);
    if (result != 0) {
        fail("mincore");
    }
    const auto count = std::count_if(present.begin(), present.end(),
                                     [](unsigned char page) { return (page & 1U) != 0; });
    return static_cast<double>(count) / static_cast<double>(present.size());
}

}  // namespace

double dropFromCache(const std::string& path)
{
    const File file(path);
    struct stat status = {};
    if (fstat(file.fd(), &status) != 0) {
        fail(path);
    }
    static_cast<void>(posix_fadvise(file.fd(), 0, 0, POSIX_FADV_DONTNEED));
    return shareInCache(file.fd(), static_cast<std::size_t>(status.st_size));
}

MountedMedium::MountedMedium(const std::string& program, const std::string& folder,
                             std::string place, double bytesPerSecond)
    : place_(std::move(place))
{
    fs::create_directories(place_);
    std::string speed = std::to_string(bytesPerSecond);
    std::string name = program;
    std::string shown = folder;
    std::string where = place_;
    const std::array<char*, 5> arguments = {name.data(), shown.data(), where.data(), speed.data(),
                                            nullptr};
    const int error = posix_spawn(&pid_, name.c_str(), nullptr, nullptr, arguments.data(), environ);
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), program);
    }
    for (int wait = 0; wait < kLongestWait; ++wait) {
        if (fs::exists(place_ + ".medium")) {
            return;
        }
        if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
            throw std::runtime_error(program + " cannot mount here");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    throw std::runtime_error(program + " does not become ready");
}

MountedMedium::~MountedMedium()
{
    static_cast<void>(umount2(place_.c_str(), MNT_DETACH));
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
}

MountedMedium::Use MountedMedium::use() const
{
    std::ifstream file(place_ + ".medium");
    Use use;
    double nanoseconds = 0;
    if (!(file >> use.bytes >> nanoseconds)) {
        throw std::runtime_error("the medium does not tell its use");
    }
    use.busySeconds = nanoseconds / 1e9;
    return use;
}

}  // namespace quillon::bench
