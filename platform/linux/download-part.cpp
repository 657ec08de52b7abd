#include "platform/linux/download-part.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "base/regular-file.h"
#include "base/replace-file.h"
#include "base/secret-bytes.h"

namespace quillon {

namespace {

constexpr char kDirectory[] = "/opt/usr/apps/appbinarymanager";
constexpr char kBootId[] = "/proc/sys/kernel/random/boot_id";
constexpr char kOwnStatus[] = "/proc/self/status";
constexpr std::size_t kLargestNote = 16384;
constexpr mode_t kPartMode = 0600;
constexpr mode_t kPackageMode = 0644;
constexpr mode_t kUsualUmask = 022;

/// @return empty when it cannot be read
std::string readText(const std::string& path)
{
    UniqueFd fd;
    struct stat opened = {};
    SecretBytes bytes;
    if (openRegularFile(path.c_str(), O_NOFOLLOW, fd, opened) != FileResult::kOk ||
        readToEnd(fd.get(), kLargestNote, bytes) != FileResult::kOk) {
        return "";
    }
    return {bytes.begin(), bytes.end()};
}

// Names this run of the machine; empty when the system does not tell.
std::string bootId()
{
    const std::string text = readText(kBootId);
    return text.substr(0, text.find('\n'));
}

/// The process's umask. Read where it is shown: asking the system for it sets another one, for all
/// threads, until it is set back.
mode_t presentUmask()
{
    constexpr std::string_view kTitle = "\nUmask:";
    constexpr int kOctal = 8;
    const std::string status = readText(kOwnStatus);
    const std::size_t line = status.find(kTitle);
    return line == status.npos ? kUsualUmask
                               : static_cast<mode_t>(std::strtoul(
                                     status.c_str() + line + kTitle.size(), nullptr, kOctal));
}

}  // namespace

DownloadPart::DownloadPart(std::string identifier, std::string address)
    : partName_("." + identifier + ".part"),
      noteName_("." + identifier + ".resume"),
      packageName_(std::move(identifier) + ".img"),
      address_(std::move(address))
{
}

DownloadPart::~DownloadPart()
{
    if (file_ && owner_ == getpid()) {
        flock(file_.get(), LOCK_UN);
    }
}

PartResult DownloadPart::open()
{
    if (makeDirectories(kDirectory, 0755)) {
        directory_ = UniqueFd(::open(kDirectory, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }
    if (!directory_) {
        return PartResult::kFailed;
    }
    const PartResult opened = openLocked();
    if (opened != PartResult::kOk) {
        return opened;
    }
    struct stat status = {};
    if (fstat(file_.get(), &status) != 0) {
        return PartResult::kFailed;
    }
    size_ = static_cast<std::uint64_t>(status.st_size);
    validator_ = notedValidator();
    if (validator_.empty() && !restart("")) {
        return PartResult::kFailed;
    }
    return PartResult::kOk;
}

PartResult DownloadPart::openLocked()
{
    // Another process may finish or drop the very part between two steps: then once more.
    constexpr int kRounds = 10;
    for (int round = 0; round < kRounds; ++round) {
        file_ = UniqueFd(
            openat(directory_.get(), partName_.c_str(),
                   O_RDWR | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY,
                   kPartMode));
        struct stat status = {};
        if (file_ && fstat(file_.get(), &status) != 0) {
            return PartResult::kFailed;
        }
        // A second name would let the package write into somebody's other file. Whoever else may
        // open a part may lock it, and keep everybody from going on with it.
        const bool foreign = file_ ? !S_ISREG(status.st_mode) || status.st_nlink > 1 ||
                                         (status.st_mode & ~(S_IFMT | kPartMode)) != 0
                                   : errno == ELOOP || errno == ENXIO;
        if (foreign) {
            if (unlinkat(directory_.get(), partName_.c_str(), 0) != 0 && errno != ENOENT) {
                return PartResult::kFailed;
            }
            continue;
        }
        if (!file_) {
            return PartResult::kFailed;
        }
        if (flock(file_.get(), LOCK_EX | LOCK_NB) != 0) {
            return errno == EWOULDBLOCK ? PartResult::kBusy : PartResult::kFailed;
        }
        owner_ = getpid();
        if (isStillAtItsPath()) {
            return PartResult::kOk;
        }
    }
    return PartResult::kBusy;
}

bool DownloadPart::isStillAtItsPath() const
{
    struct stat opened = {};
    struct stat present = {};
    return fstat(file_.get(), &opened) == 0 &&
           fstatat(directory_.get(), partName_.c_str(), &present, AT_SYMLINK_NOFOLLOW) == 0 &&
           opened.st_dev == present.st_dev && opened.st_ino == present.st_ino;
}

std::string DownloadPart::notedValidator() const
{
    const std::string boot = bootId();
    const std::string head = address_ + "\n" + boot + "\n";
    const std::string note = readText(std::string(kDirectory).append("/").append(noteName_));
    if (boot.empty() || note.compare(0, head.size(), head) != 0) {
        return "";
    }
    const std::string validator = note.substr(head.size());
    return validator.substr(0, validator.find('\n'));
}

bool DownloadPart::writeNote() const
{
    const std::string text = address_ + "\n" + bootId() + "\n" + validator_ + "\n";
    return replaceFile(kDirectory, noteName_, SecretBytes(text.begin(), text.end()));
}

bool DownloadPart::restart(const std::string& validator)
{
    // The old note goes first, so that it never stands beside bytes of another state.
    if (unlinkat(directory_.get(), noteName_.c_str(), 0) != 0 && errno != ENOENT) {
        return false;
    }
    if (ftruncate(file_.get(), 0) != 0) {
        return false;
    }
    size_ = 0;
    validator_ = validator;
    return validator_.empty() || writeNote();
}

bool DownloadPart::append(const char* data, std::size_t size)
{
    if (!writeAll(file_.get(), data, size)) {
        return false;
    }
    size_ += size;
    return true;
}

bool DownloadPart::place()
{
    if (fsync(file_.get()) != 0) {
        return false;
    }
    if (!isStillAtItsPath()) {
        errno = ESTALE;
        return false;
    }
    // Without its note, a part that stays behind is not taken up for another package.
    if (unlinkat(directory_.get(), noteName_.c_str(), 0) != 0 && errno != ENOENT) {
        return false;
    }
    if (renameat(directory_.get(), partName_.c_str(), directory_.get(), packageName_.c_str()) !=
        0) {
        return false;
    }
    // Only now, since another process takes a part that others can open for a foreign one. Should
    // this one be killed here, its owner and the helper that mounts packages still read it. A file
    // system without modes refuses, and needs none.
    static_cast<void>(fchmod(file_.get(), kPackageMode & ~presentUmask()));
    return fsync(directory_.get()) == 0;
}

void DownloadPart::discard()
{
    const int reason = errno;
    if (isStillAtItsPath()) {
        unlinkat(directory_.get(), noteName_.c_str(), 0);
        unlinkat(directory_.get(), partName_.c_str(), 0);
    }
    errno = reason;
}

}  // namespace quillon
