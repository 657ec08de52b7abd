#include "tools/quillonctl/modules/slot-holders.h"

#include <linux/capability.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string_view>
#include <system_error>

#include "base/mappings.h"
#include "tools/quillonctl/modules/slot-locks.h"
#include "tools/shared/outside-text.h"

namespace quillon {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kLongestCommand = 60;
constexpr mode_t kOthers = S_IWGRP | S_IWOTH;

std::string firstBytesOf(const fs::path& path)
{
    std::ifstream file(path);
    std::string text(8192, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(file.gcount()));
    return text;
}

std::string commandOf(pid_t process)
{
    const fs::path directory = "/proc/" + std::to_string(process);
    std::string command = firstBytesOf(directory / "cmdline");
    if (command.empty()) {
        command = firstBytesOf(directory / "comm");
    }
    while (!command.empty() && (command.back() == '\0' || command.back() == '\n')) {
        command.pop_back();
    }
    std::replace(command.begin(), command.end(), '\0', ' ');
    return cut(printable(command), kLongestCommand);
}

/// Whether the process has the capability to open whatever it likes. Also true when that cannot be
/// told.
bool mayPassOverModes(const fs::path& directory)
{
    constexpr std::string_view kTitle = "\nCapEff:";
    constexpr int kHexadecimal = 16;
    const std::string text = firstBytesOf(directory / "status");
    const std::size_t line = text.find(kTitle);
    return line == text.npos ||
           (std::strtoull(text.c_str() + line + kTitle.size(), nullptr, kHexadecimal) >>
                CAP_DAC_OVERRIDE &
            1U) != 0;
}

/// Whether the process may use the semaphore at all. One that has given up root's rights counts as
/// root's, since /proc shows it so.
bool mayOpen(const fs::path& directory, const struct stat& file)
{
    struct stat process = {};
    if (stat(directory.c_str(), &process) != 0) {
        return false;  // it has ended
    }
    return process.st_uid == 0 || process.st_uid == file.st_uid || mayPassOverModes(directory);
}

/// One that this user may not look into, of another container, or that has ended and left its lock
/// to somebody. Its number may be a stranger's by now.
SlotHolder unseenHolder(const SlotLocks& locks)
{
    const pid_t holder = locks.holder();
    const bool isStranger = access(("/proc/" + std::to_string(holder)).c_str(), F_OK) == 0 &&
                            mappingOf(holder, locks.file()) == Mapping::kNone;
    if (holder == 0 || isStranger) {
        return {};
    }
    return holderOf(holder);
}

}  // namespace

SlotHolder holderOf(pid_t process)
{
    return {process, commandOf(process)};
}

bool isStopped(pid_t process)
{
    const std::string text = firstBytesOf("/proc/" + std::to_string(process) + "/stat");
    const std::size_t name = text.rfind(')');  // the state follows
    return name != std::string::npos &&
           (text.compare(name, 3, ") T") == 0 || text.compare(name, 3, ") t") == 0);
}

SlotHolders findSlotHolders(const SlotLocks& locks)
{
    SlotHolders holders;
    // Where a mount option hides the processes of others, it hides this one as well.
    holders.isComplete = access("/proc/1", F_OK) == 0;
    std::error_code error;
    for (fs::directory_iterator entry("/proc", error); !error && entry != fs::directory_iterator();
         entry.increment(error)) {
        const auto process =
            static_cast<pid_t>(std::strtol(entry->path().filename().c_str(), nullptr, 10));
        if (process <= 0 || process == getpid()) {
            continue;
        }
        // The mappings of a process may be many, and reading them can take seconds.
        const bool mayHold = mayOpen(entry->path(), locks.file());
        if (!mayHold && (locks.file().st_mode & kOthers) == 0) {
            continue;
        }
        Mapping mapping = mappingOf(process, locks.file());
        const bool onlyTakesPart = locks.onlyTakesPart(process);
        if (mapping == Mapping::kHas && !onlyTakesPart) {
            // A process that ends loses its mapping before its lock.
            mapping = mappingOf(process, locks.file());
        }
        if (mapping == Mapping::kHas && !onlyTakesPart) {
            holders.alive.push_back(holderOf(process));
        } else if (mapping == Mapping::kHas) {
            holders.waiting.push_back(holderOf(process));
            if (isStopped(process)) {
                holders.stopped.push_back(holders.waiting.back());
            }
        } else if (mapping == Mapping::kHidden && mayHold) {
            holders.isComplete = false;
        }
    }
    holders.isComplete = holders.isComplete && !error;
    if (holders.alive.empty() && locks.isHeld()) {
        holders.alive.push_back(unseenHolder(locks));
    }
    return holders;
}

std::string describe(const std::vector<SlotHolder>& holders)
{
    std::string text;
    for (const SlotHolder& holder : holders) {
        text += text.empty() ? "" : ", ";
        text += holder.process == 0 ? "a quillonctl whose process number is not known"
                                    : "process " + std::to_string(holder.process);
        text += holder.command.empty() ? "" : " (" + holder.command + ")";
    }
    return text;
}

}  // namespace quillon
