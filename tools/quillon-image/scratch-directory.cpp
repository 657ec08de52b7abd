#include "tools/quillon-image/scratch-directory.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "base/replace-file.h"
#include "platform/verifier/image-error.h"

namespace quillon {
namespace {

constexpr int kSignals[] = {SIGHUP, SIGINT, SIGTERM};
constexpr mode_t kDirectoryMode = 0755;

[[noreturn]] void refuse(const std::string& path)
{
    throw ImageError(ImageFault::kFile, path + ": cannot be written: " + std::strerror(errno));
}

}  // namespace

HeldSignals::HeldSignals()
{
    sigset_t held;
    sigemptyset(&held);
    for (const int signal : kSignals) {
        struct sigaction action = {};
        // One that is ignored, as by nohup(1), would wait here instead of being dropped.
        if (sigaction(signal, nullptr, &action) == 0 && action.sa_handler != SIG_IGN) {
            sigaddset(&held, signal);
        }
    }
    sigprocmask(SIG_BLOCK, &held, &before_);
}

HeldSignals::~HeldSignals()
{
    sigprocmask(SIG_SETMASK, &before_, nullptr);
}

void HeldSignals::requireNone() const
{
    sigset_t waiting;
    sigpending(&waiting);
    for (const int signal : kSignals) {
        if (sigismember(&waiting, signal) == 1) {
            throw ImageError(ImageFault::kFile, "interrupted");
        }
    }
}

ScratchDirectory::ScratchDirectory(const std::string& neighbour)
{
    std::string pattern = neighbour + ".XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        refuse(neighbour);
    }
    path_ = pattern;
}

ScratchDirectory::~ScratchDirectory()
{
    std::error_code ignored;
    if (!path_.empty()) {
        std::filesystem::remove_all(path_, ignored);
    }
}

void ScratchDirectory::renameTo(const std::string& target)
{
    // A stick's file system may have no modes to change.
    static_cast<void>(chmod(path_.c_str(), kDirectoryMode));
    if (std::rename(path_.c_str(), target.c_str()) != 0) {
        refuse(target);
    }
    path_.clear();
    if (!syncDirectory(std::filesystem::path(target).parent_path() / ".") && errno != EINVAL) {
        refuse(target);
    }
}

}  // namespace quillon
