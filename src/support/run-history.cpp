#include "support/run-history.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <utility>

#include "base/fd.h"
#include "base/replace-file.h"
#include "support/record-file.h"
#include "support/run-record.h"

namespace quillon {
namespace {

constexpr off_t kFull = 1L << 20;
constexpr off_t kLargest = 2L << 20;
constexpr off_t kLargestRefused = 64L << 10;
constexpr std::size_t kMostInMemory = 1U << 20U;

bool endsInALine(int file, off_t size)
{
    char last = '\n';
    return size == 0 || (pread(file, &last, 1, size - 1) == 1 && last == '\n');
}

}  // namespace

bool RunHistory::hasDirectory() const
{
    struct stat status = {};
    return fstatat(AT_FDCWD, directory_.c_str(), &status, 0) == 0;
}

void RunHistory::begin(const std::string& line)
{
    isSlow_ = false;
    isMissed_ = false;
    first_ = line;
    others_.clear();
    place_ = Place::kMemory;
}

void RunHistory::add(const std::string& line)
{
    if (place_ == Place::kMemory) {
        others_ += line;
        if (others_.size() > kMostInMemory) {
            keep();
        }
        return;
    }
    if (std::exchange(place_, Place::kNowhere) != Place::kFile) {
        return;
    }
    isLost_ = true;  // also where memory runs out, of which giveUp() learns
    place_ = append(line) ? Place::kFile : Place::kNowhere;
    markLost(place_ != Place::kFile);
}

void RunHistory::end(const std::string& line)
{
    if (isMissed_) {
        keep();
    }
    if (place_ == Place::kMemory && !others_.empty()) {
        addRefused(first_ + others_ + line);
    } else if (place_ == Place::kFile) {
        add(line);
    }
    place_ = Place::kNowhere;
}

void RunHistory::keep()
{
    if (place_ != Place::kMemory) {
        return;
    }
    place_ = Place::kNowhere;
    if (!startFile()) {
        return;
    }
    struct stat status = {};
    const bool wasLost =
        isLost_ || fstatat(AT_FDCWD, lostLines_.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
    if (wasLost) {
        first_.insert(first_.rfind('}'), R"(,"lost":true)");
    }
    const bool isWritten = append(first_ + others_);
    if (isWritten && wasLost) {
        unlink(lostLines_.c_str());
    }
    markLost(!isWritten || isMissed_);  // it may be in the file all the same
    place_ = isLost_ ? Place::kNowhere : Place::kFile;
}

void RunHistory::giveUp() noexcept
{
    isMissed_ = place_ == Place::kMemory;
    markLost(isLost_ || place_ == Place::kFile);
    if (place_ == Place::kFile) {
        place_ = Place::kNowhere;
    }
}

void RunHistory::markLost(bool isLost) noexcept
{
    isLost_ = isLost;
    if (isLost && symlink("nowhere", lostLines_.c_str()) != 0) {
        return;  // it may be there already
    }
}

/// Makes sure that the file exists, has room, and ends with a line's end.
bool RunHistory::startFile() const
{
    const std::string path = directory_ + kHistory;
    struct stat status = {};
    if (fstatat(AT_FDCWD, path.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        S_ISREG(status.st_mode) && status.st_size >= kFull &&
        std::rename(path.c_str(), (directory_ + kEarlierHistory).c_str()) != 0) {
        return false;
    }
    const UniqueFd file = openForLines(path, O_RDWR | O_CREAT, status);
    if (!file) {
        return false;
    }
    if (status.st_size == 0) {
        syncDirectory(directory_);  // as far as the file system can
    }
    return endsInALine(file.get(), status.st_size) || writeAll(file.get(), "\n", 1);
}

/// Nothing here waits for the disk: any user can cause many of these.
void RunHistory::addRefused(const std::string& text) const
{
    const std::string path = directory_ + kRefusedRuns;
    constexpr int kFlags = O_RDWR | O_CREAT;
    struct stat status = {};
    UniqueFd file = openForLines(path, kFlags, status);
    if (file && status.st_size + static_cast<off_t>(text.size()) > kLargestRefused) {
        unlink(path.c_str());  // once it is emptied instead, some file systems flush it
        file = openForLines(path, kFlags, status);
    }
    if (file && (endsInALine(file.get(), status.st_size) || writeAll(file.get(), "\n", 1))) {
        static_cast<void>(writeAll(file.get(), text.data(), text.size()));
    }
}

bool RunHistory::append(const std::string& text)
{
    struct stat status = {};
    const UniqueFd file = openForLines(directory_ + kHistory, O_WRONLY, status);
    if (!file || status.st_size + static_cast<off_t>(text.size()) > kLargest ||
        !writeAll(file.get(), text.data(), text.size())) {
        return false;
    }
    if (isSlow_) {
        return true;
    }
    const double before = secondsSinceBoot();
    const bool isWritten = fdatasync(file.get()) == 0;
    isSlow_ = secondsSinceBoot() - before > longestSync_;
    return isWritten;
}

}  // namespace quillon
