#pragma once

#include <csignal>
#include <string>

namespace quillon {

/// Keeps SIGHUP, SIGINT and SIGTERM back while it lives, so that what is temporary is removed
/// before one of them ends the process. Declare it before what is to be removed. Programs that run
/// meanwhile do not inherit it: an interruption from the terminal ends them at once.
class HeldSignals
{
public:
    HeldSignals();
    /// A signal that came meanwhile takes effect here, unless another HeldSignals lives on.
    ~HeldSignals();
    HeldSignals(const HeldSignals&) = delete;
    HeldSignals& operator=(const HeldSignals&) = delete;

    /// To be called now and then during long work. Throws when one of the signals is waiting.
    void requireNone() const;

private:
    sigset_t before_{};
};

/// A directory beside a file, readable by its owner only, removed with all that is in it.
class ScratchDirectory
{
public:
    /// @throws ImageError with ImageFault::kFile, naming the neighbour.
    explicit ScratchDirectory(const std::string& neighbour);
    ~ScratchDirectory();
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

    const std::string& path() const { return path_; }

    /// Gives the directory and what is in it, all of which is on the disk, another name and mode
    /// 0755. An empty directory of that name is replaced.
    /// @throws ImageError with ImageFault::kFile, naming the target, when there is anything else.
    void renameTo(const std::string& target);

private:
    std::string path_;  ///< empty after renameTo
};

}  // namespace quillon
