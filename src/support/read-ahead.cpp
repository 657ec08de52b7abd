#include "support/read-ahead.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <utility>

#include "base/regular-file.h"
#include "base/signals-blocked.h"

namespace quillon {
namespace {

/// What a control group lets a process keep may be far less than what the machine has.
constexpr std::int64_t kLargestWindow = 32 << 20;

/// A page, or a part of one: reading a byte of it brings all of it into the page cache.
constexpr std::int64_t kPiece = 4096;

/// A sixteenth of the machine's memory. The page cache gives its pages back when others need them,
/// so what is free at present says little.
std::int64_t shareOfMemory()
{
    struct sysinfo machine = {};
    sysinfo(&machine);  // not from /proc, which the unit hides
    return static_cast<std::int64_t>(machine.totalram) * machine.mem_unit / 16;
}

}  // namespace

ReadAhead::ReadAhead(std::vector<std::string> paths, std::int64_t window)
    : paths_(std::move(paths)), window_(window)
{
    if (std::count(paths_.begin(), paths_.end(), "") + 1 >=
        static_cast<std::ptrdiff_t>(paths_.size())) {
        return;
    }
    const int callersErrno = errno;
    try {
        fetched_.resize(paths_.size());
        if (window_ == kShareOfMemory) {
            window_ = std::min(shareOfMemory(), kLargestWindow);
        }
        const SignalsBlocked blocked;
        thread_ = std::thread([this] { fetchAll(); });
    } catch (const std::exception&) {
        // Then each file is read when its turn comes.
    }
    errno = callersErrno;
}

ReadAhead::~ReadAhead()
{
    if (!thread_.joinable()) {
        return;
    }
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        isOver_ = true;
    }
    changed_.notify_one();
    thread_.join();
}

void ReadAhead::reach(std::size_t index)
{
    if (!thread_.joinable()) {
        return;
    }
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        while (reached_ < index) {
            ++reached_;
            ahead_ -= fetched_[reached_];
        }
    }
    changed_.notify_one();
}

void ReadAhead::fetchAll()
{
    for (std::size_t index = 0; index < paths_.size(); ++index) {
        if (!paths_[index].empty() && awaitRoom(index)) {
            fetch(index);
        }
    }
}

void ReadAhead::fetch(std::size_t index)
{
    UniqueFd file;
    struct stat opened = {};
    if (openRegularFile(paths_[index].c_str(), 0, file, opened) != FileResult::kOk) {
        return;
    }
    // The kernel then asks for the next pieces while this one is under way.
    posix_fadvise(file.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    for (std::int64_t had = 0; had < opened.st_size && awaitRoom(index); had += kPiece) {
        char byte = 0;
        if (pread(file.get(), &byte, 1, had) != 1) {
            return;
        }
        count(index, kPiece);
    }
}

/// @return false when the file is not needed any more
bool ReadAhead::awaitRoom(std::size_t index)
{
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return isOver_ || index <= reached_ || ahead_ < window_; });
    return !isOver_ && index > reached_;
}

void ReadAhead::count(std::size_t index, std::int64_t bytes)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    fetched_[index] += bytes;
    if (index > reached_) {
        ahead_ += bytes;
    }
}

}  // namespace quillon
