#include "platform/linux/download-part.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
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

/// @param[out] status  what the file is; undefined when it cannot be opened
/// @return empty when it cannot be read
std::string readText(const std::string& path, struct stat* status = nullptr)
{
    UniqueFd fd;
    struct stat opened = {};
    SecretBytes bytes;
    if (openRegularFile(path.c_str(), O_NOFOLLOW, fd, status != nullptr ? *status : opened) !=
            FileResult::kOk ||
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

/// Whether the error is that of a link, a socket, or a file that is not for this user.
bool mayNotBeOpened(int error)
{
    return error == ELOOP || error == ENXIO || error == EACCES;
}

bool isPrivate(const struct stat& status)
{
    return (status.st_mode & ALLPERMS & ~kPartMode) == 0;
}

std::string pathOf(const std::string& name)
{
    return std::string(kDirectory).append("/").append(name);
}

}  // namespace

DownloadPart::DownloadPart(std::string identifier, std::string address)
    : user_(geteuid()),
      partName_("." + identifier + "." + std::to_string(user_) + ".part"),
      noteName_("." + identifier + "." + std::to_string(user_) + ".resume"),
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
    return PartResult::kOk;
}

PartResult DownloadPart::openLocked()
{
    // Another process may finish, drop or begin the very part between two steps: then once more.
    constexpr int kRounds = 10;
    constexpr int kFlags = O_RDWR | O_APPEND | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    bool wasForeign = false;
    for (int round = 0; round < kRounds; ++round) {
        file_ = UniqueFd(openat(directory_.get(), partName_.c_str(), kFlags));
        const bool isNew = !file_ && errno == ENOENT;
        if (isNew) {
            file_ = UniqueFd(
                openat(directory_.get(), partName_.c_str(), kFlags | O_CREAT | O_EXCL, kPartMode));
            if (!file_ && errno == EEXIST) {
                continue;
            }
        }
        // What was made just now is the user's, whatever owner and mode the file system shows.
        wasForeign = !isNew && (file_ ? isForeign() : mayNotBeOpened(errno));
        if (wasForeign) {
            if (!removeFile(partName_)) {
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
        if (!isStillAtItsPath()) {
            continue;
        }
        validator_ = isNew ? "" : notedValidator();
        if (isNew || !validator_.empty()) {
            return PartResult::kOk;
        }
        // Who may write to the directory may have moved another file of this user's here.
        if (!removeFile(partName_)) {
            return PartResult::kFailed;
        }
    }
    errno = ESTALE;
    return wasForeign ? PartResult::kFailed : PartResult::kBusy;
}

/// Whether the open file stands in the part's place and is none that a download of this user has
/// made.
bool DownloadPart::isForeign() const
{
    struct stat status = {};
    if (fstat(file_.get(), &status) != 0) {
        return false;
    }
    // A second name would let the package write into somebody's other file.
    const bool isOwn = S_ISREG(status.st_mode) && status.st_nlink == 1 && status.st_uid == user_;
    // Since it was opened it may have become a package, and the next part be in its place.
    if ((isOwn && isPrivate(status)) || !isStillAtItsPath()) {
        return false;
    }
    // Whoever else may open a part may lock it, and may have done so already. Only where modes
    // cannot be set does that have to be borne.
    return !isOwn || (fchmod(file_.get(), kPartMode) == 0 && fstat(file_.get(), &status) == 0 &&
                      isPrivate(status));
}

bool DownloadPart::isStillAtItsPath() const
{
    struct stat opened = {};
    struct stat present = {};
    return fstat(file_.get(), &opened) == 0 &&
           fstatat(directory_.get(), partName_.c_str(), &present, AT_SYMLINK_NOFOLLOW) == 0 &&
           opened.st_dev == present.st_dev && opened.st_ino == present.st_ino;
}

std::string DownloadPart::failure() const
{
    const int reason = errno;
    const std::string text = std::string(std::strerror(reason)) + ": ";
    if (reason == EACCES) {
        return text + "user " + std::to_string(user_) + " may not write to " + kDirectory;
    }
    if (reason == ESTALE) {
        return text + "somebody removes or replaces " + pathOf(partName_);
    }
    for (const std::string& name : {partName_, noteName_, packageName_}) {
        struct stat status = {};
        if ((reason == EISDIR || reason == EPERM) &&
            fstatat(directory_.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
            (S_ISDIR(status.st_mode) || status.st_uid != user_)) {
            return text + "remove " + pathOf(name) + " as root or as user " +
                   std::to_string(status.st_uid) + ", who owns it";
        }
    }
    return std::strerror(reason);
}

/// What every note of this part begins with; empty when that cannot be told. When the part is gone,
/// another file may get its inode, but not the time at which it was made.
std::string DownloadPart::noteHead() const
{
    constexpr unsigned int kWanted = STATX_INO | STATX_BTIME;
    struct statx part = {};
    const std::string boot = bootId();
    if (boot.empty() || statx(file_.get(), "", AT_EMPTY_PATH, kWanted, &part) != 0 ||
        (part.stx_mask & kWanted) != kWanted) {
        return "";
    }
    std::string head = address_ + "\n" + boot + "\n";
    for (const std::uint64_t number :
         {std::uint64_t{part.stx_dev_major}, std::uint64_t{part.stx_dev_minor},
          std::uint64_t{part.stx_ino}, static_cast<std::uint64_t>(part.stx_btime.tv_sec),
          std::uint64_t{part.stx_btime.tv_nsec}}) {
        head += std::to_string(number) + " ";
    }
    return head + "\n";
}

std::string DownloadPart::notedValidator() const
{
    struct stat part = {};
    struct stat note = {};
    const std::string head = noteHead();
    const std::string text = readText(pathOf(noteName_), &note);
    // Nobody else can have written the note. Where modes cannot be set, the part's has none either.
    const bool isOwn = note.st_uid == user_ && note.st_nlink == 1 &&
                       (isPrivate(note) || (fstat(file_.get(), &part) == 0 && !isPrivate(part)));
    if (head.empty() || !isOwn || text.compare(0, head.size(), head) != 0) {
        return "";
    }
    const std::string validator = text.substr(head.size());
    return validator.substr(0, validator.find('\n'));
}

bool DownloadPart::writeNote() const
{
    const std::string text = noteHead() + validator_ + "\n";
    return replaceFile(kDirectory, noteName_, SecretBytes(text.begin(), text.end()));
}

/// @return also true when it is not there
bool DownloadPart::removeFile(const std::string& name) const
{
    return unlinkat(directory_.get(), name.c_str(), 0) == 0 || errno == ENOENT;
}

bool DownloadPart::restart(const std::string& validator)
{
    // The old note goes first, so that it never stands beside bytes of another state.
    if (!removeFile(noteName_) || ftruncate(file_.get(), 0) != 0) {
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
    if (!removeFile(noteName_)) {
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
