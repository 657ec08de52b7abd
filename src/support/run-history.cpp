#include "support/run-history.h"

#include <fcntl.h>
#include <json/json.h>
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

void RunHistory::begin(Json::Value line)
{
    isSlow_ = false;
    isKept_ = false;
    if (!startFile()) {
        return;
    }
    if (isLost_) {
        line["lost"] = true;
    }
    isKept_ = append(lineOf(line));
    isLost_ = !isKept_;  // it may be in the file all the same
}

void RunHistory::add(const Json::Value& line)
{
    if (!std::exchange(isKept_, false)) {
        return;
    }
    isLost_ = true;  // also where memory runs out
    isKept_ = append(lineOf(line));
    isLost_ = !isKept_;
}

void RunHistory::giveUp() noexcept
{
    isLost_ = isLost_ || isKept_;
    isKept_ = false;
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
