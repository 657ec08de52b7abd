#include "tools/quillonctl/modules/layer-record.h"

#include <signal.h>
#include <sys/fsuid.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <system_error>
#include <utility>
#include <vector>

#include "base/replace-file.h"
#include "src/support/paths.h"
#include "tools/quillonctl/history.h"

namespace quillon {

namespace {

namespace fs = std::filesystem;

/// How long the records of an ended program are left for those who follow it.
constexpr std::chrono::minutes kLeftFor(1);
constexpr mode_t kMode = 0755;
constexpr uid_t kNoUser = static_cast<uid_t>(-1);

/// This thread's rights over files are those of a user and a group for as long as it lives; root's
/// supplementary groups stay. Root may become anybody, others only themselves.
class FileRights
{
public:
    FileRights(uid_t user, gid_t group) : isDumpable_(prctl(PR_GET_DUMPABLE))
    {
        setfsgid(group);
        setfsuid(user);
        // The calls do not tell whether they have had an effect.
        isUser_ = static_cast<uid_t>(setfsuid(kNoUser)) == user;
    }
    ~FileRights()
    {
        setfsuid(geteuid());
        setfsgid(getegid());
        prctl(PR_SET_DUMPABLE, isDumpable_);  // the calls forbid a core file
    }
    FileRights(const FileRights&) = delete;
    FileRights& operator=(const FileRights&) = delete;

    bool isUser() const { return isUser_; }

private:
    const int isDumpable_;
    bool isUser_ = false;
};

void makeDirectory(const std::string& path)
{
    if (mkdir(path.c_str(), kMode) == 0) {
        static_cast<void>(chmod(path.c_str(), kMode));  // whatever the umask
    }
}

bool isGone(pid_t process)
{
    return process > 0 && kill(process, 0) != 0 && errno == ESRCH;
}

/// Takes away what programs have left that ended a while ago.
void sweep()
{
    std::error_code error;
    const auto now = fs::file_time_type::clock::now();
    for (fs::directory_iterator entry(paths::kLayerRecords, error), end; !error && entry != end;
         entry.increment(error)) {
        const auto process =
            static_cast<pid_t>(std::strtol(entry->path().filename().c_str(), nullptr, 10));
        std::error_code ignored;
        const auto written = fs::last_write_time(entry->path() / "update.jsonl", ignored);
        if (isGone(process) && (ignored || now - written > kLeftFor)) {
            fs::remove_all(entry->path(), ignored);
        }
    }
}

/// Takes away what is kept of the oldest updates, and what programs have left that kept nothing.
void sweepHistory()
{
    std::vector<std::pair<std::int64_t, fs::path>> updates;
    std::error_code error;
    for (fs::directory_iterator entry(paths::kLayerHistory, error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string name = entry->path().filename();
        const std::size_t dash = std::min(name.find('-'), name.size() - 1);
        if (isGone(static_cast<pid_t>(std::strtol(name.c_str() + dash + 1, nullptr, 10)))) {
            updates.emplace_back(std::strtoll(name.c_str(), nullptr, 10), entry->path());
        }
    }
    std::sort(updates.rbegin(), updates.rend());
    std::size_t kept = 0;
    std::uintmax_t bytes = 0;
    for (const auto& [at, path] : updates) {
        std::error_code ignored;
        const std::uintmax_t before = bytes;
        for (fs::directory_iterator file(path, ignored), end; !ignored && file != end;
             file.increment(ignored)) {
            std::error_code unknown;
            const std::uintmax_t size =
                file->is_regular_file(unknown) ? file->file_size(unknown) : 0;
            bytes += unknown ? 0 : size;
        }
        if (bytes == before || bytes > kMostLayerBytes || ++kept > kMostLayerHistories) {
            fs::remove_all(path, ignored);
        }
    }
}

/// Also after a power cut it is there, where the file system can promise that.
void makeHistory(const std::string& directory)
{
    makeDirectory(paths::kLayerHistory);
    sweepHistory();
    makeDirectory(directory);
    syncDirectory(paths::kRunHistory);
    syncDirectory(paths::kLayerHistory);
}

}  // namespace

/// Drops what goes wrong, and does nothing where this user has other rights.
/// @return whether the work was done to its end
template <typename Work>
bool LayerRecord::asOwner(Work work)
{
    bool isOwner = false;
    const bool isDone = unnoticed([&] {
        const FileRights rights(owner_, group_);
        isOwner = rights.isUser();
        if (isOwner) {
            work();
        }
    });
    return isOwner && isDone;
}

LayerRecord::LayerRecord() : directory_(paths::kLayerRecords + std::to_string(getpid()) + "/")
{
    struct stat status = {};
    if (stat(paths::kRunRecords, &status) != 0) {
        return;
    }
    owner_ = status.st_uid;
    group_ = status.st_gid;
    static_cast<void>(asOwner([&] {
        makeDirectory(paths::kLayerRecords);
        sweep();
        fs::remove_all(directory_);  // of an earlier process with this number
        makeDirectory(directory_);
        const std::string history = paths::kLayerHistory + std::to_string(std::time(nullptr)) +
                                    "-" + std::to_string(getpid()) + "/";
        makeHistory(history);
        record_.emplace(directory_, history);
    }));
}

void LayerRecord::hear(const ModuleNews& news)
{
    if (record_ && !asOwner([&] { record_->hear(news); })) {
        miss(news.event);
    }
}

void LayerRecord::hearRun(const RunNews& news)
{
    if (record_ && !asOwner([&] { record_->hearRun(news); })) {
        missRun(news.event);
    }
}

void LayerRecord::miss(ModuleEvent event) noexcept
{
    if (record_) {
        static_cast<void>(asOwner([&] { record_->miss(event); }));
    }
}

void LayerRecord::missRun(RunEvent event) noexcept
{
    if (record_) {
        static_cast<void>(asOwner([&] { record_->missRun(event); }));
    }
}

}  // namespace quillon
