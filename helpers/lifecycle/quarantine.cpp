#include "helpers/lifecycle/quarantine.h"

#include <fcntl.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <system_error>

#include "base/fd.h"
#include "base/regular-file.h"
#include "base/replace-file.h"
#include "helpers/lifecycle/trusted-places.h"
#include "helpers/lifecycle/unit-failure.h"
#include "src/support/paths.h"

namespace quillon::unit {

namespace {

namespace fs = std::filesystem;

constexpr const char* kState = "/var/lib/quillon";
constexpr const char* kCount = "quarantine-count.json";
constexpr std::size_t kLargestRecord = 4U << 20U;
constexpr std::size_t kLargestCount = 64U << 10U;
constexpr std::size_t kLongestFirstLine = 4096;
constexpr int kEndsForQuarantine = 3;
constexpr mode_t kMode = 0755;
constexpr mode_t kGroupAndOthersWrite = 0022;

/// What the service has recorded of its latest start.
struct Start
{
    std::string began;    ///< the record's first line, which no other start has
    std::string loading;  ///< the module at which the record ends; empty for none
};

/// Ends at which one module was being loaded, up to the latest start that was judged.
struct Count
{
    std::string began;
    std::string module;
    int ends = 0;
};

/// @return null for what is no object
Json::Value objectIn(const std::string& text)
{
    Json::Value value;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    const bool isRead = reader->parse(text.data(), text.data() + text.size(), &value, nullptr);
    return isRead && value.isObject() ? value : Json::Value();
}

/// @return nothing where the record is not what the service writes
std::optional<Start> latestStart()
{
    const std::optional<std::string> record = readRegularFile(
        paths::kRunRecords + std::string("start.jsonl"), kLargestRecord, O_NOFOLLOW);
    // Without the end of its last line it may lack further ones.
    if (!record || record->empty() || record->back() != '\n' ||
        record->find('\n') > kLongestFirstLine) {
        return std::nullopt;
    }
    const std::size_t endBefore = record->find_last_of('\n', record->size() - 2);
    const std::size_t last = record->size() > 1 && endBefore != record->npos ? endBefore + 1 : 0;
    try {
        const Json::Value line = objectIn(record->substr(last));
        const bool isLoading = line["event"] == "loading";
        return Start{record->substr(0, record->find('\n')),
                     isLoading ? line["module"].asString() : ""};
    } catch (const Json::Exception&) {
        return std::nullopt;
    }
}

Count readCount()
{
    const std::string path = std::string(kState) + "/" + kCount;
    const std::optional<std::string> text = readRegularFile(path, kLargestCount, O_NOFOLLOW);
    try {
        const Json::Value count = objectIn(text.value_or(""));
        return {count["began"].asString(), count["module"].asString(), count["ends"].asInt()};
    } catch (const Json::Exception&) {
        return {};
    }
}

void keep(const Count& count)
{
    Json::Value object;
    object["began"] = count.began;
    object["module"] = count.module;
    object["ends"] = count.ends;
    const std::string text = Json::writeString(Json::StreamWriterBuilder(), object) + "\n";
    if (!replaceFile(kState, kCount, SecretBytes(text.begin(), text.end()), 0644)) {
        failWithErrno(std::string("cannot keep ") + kState + "/" + kCount);
    }
}

/// @return closed where it cannot be had or is not root's alone, errno says why
UniqueFd openQuarantine()
{
    if (mkdir(paths::kQuarantine, kMode) == 0) {
        chmod(paths::kQuarantine, kMode);  // whatever the umask
    } else if (errno != EEXIST) {
        return UniqueFd();
    }
    // A path that ends in "/" would lead through a link.
    const std::string path = fs::path(paths::kQuarantine).parent_path();
    UniqueFd directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status = {};
    if (directory && (fstat(directory.get(), &status) != 0 || status.st_uid != 0 ||
                      (status.st_mode & kGroupAndOthersWrite) != 0)) {
        directory.reset();
        errno = EPERM;
    }
    return directory;
}

/// @param file  a name in the modules' directory
/// @return why it was not moved; empty when it was
std::string moveAside(const std::string& file)
{
    const UniqueFd modules(open(paths::kModules, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat status = {};
    if (!modules || fstatat(modules.get(), file.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return std::strerror(errno);
    }
    if (!S_ISREG(status.st_mode)) {
        return "it is no regular file";
    }
    const UniqueFd quarantine = openQuarantine();
    if (!quarantine) {
        return std::string(paths::kQuarantine) + ": " + std::strerror(errno);
    }
    if (renameat(modules.get(), file.c_str(), quarantine.get(), file.c_str()) != 0) {
        return std::strerror(errno);
    }
    // The new name first: after a power cut in between there are two names rather than none.
    static_cast<void>(fsync(quarantine.get()));
    static_cast<void>(fsync(modules.get()));
    return "";
}

bool isFileName(const std::string& text)
{
    return !text.empty() && text.size() + std::strlen(".so") <= NAME_MAX &&
           text.find('/') == text.npos && text.find('\0') == text.npos;
}

void putIntoQuarantine(const std::string& module)
{
    const std::string file = module + ".so";
    const std::string place = unit::quoted(paths::kModules + file);
    const std::string ended = "the service has ended at " + std::to_string(kEndsForQuarantine) +
                              " starts in a row or more while it loaded the module " +
                              unit::quoted(module);
    const std::string reason = moveAside(file);
    if (!reason.empty()) {
        say(Priority::kError,
            ended + "; it cannot be moved away: " + reason + "; take it out by hand: " + place);
        return;
    }
    say(Priority::kError, ended +
                              "; that module is in quarantine now, and the service starts without "
                              "it. Once it is mended: mv -n " +
                              unit::quoted(paths::kQuarantine + file) + " " + paths::kModules +
                              " && systemctl restart quillon");
}

}  // namespace

void judgeStart(bool hasFailed)
{
    const std::optional<Start> start = latestStart();
    const Count before = readCount();
    if (!start || start->began == before.began) {
        return;
    }
    Count count{start->began, "", 0};
    if (hasFailed && isFileName(start->loading)) {
        count.module = start->loading;
        count.ends =
            count.module == before.module ? std::min(before.ends, kEndsForQuarantine) + 1 : 1;
    }
    if (count.ends == 0 && before.ends == 0) {
        return;  // nothing is written at a usual start
    }
    keep(count);
    if (count.ends >= kEndsForQuarantine) {
        putIntoQuarantine(count.module);
    } else if (count.ends > 0) {
        say(Priority::kWarning, "the service has ended while it loaded the module " +
                                    unit::quoted(count.module) + ", " + std::to_string(count.ends) +
                                    " of " + std::to_string(kEndsForQuarantine) +
                                    " times before the module is put into quarantine");
    }
}

std::string troubleWithModules()
{
    std::string kept;
    std::error_code error;
    for (fs::directory_iterator entry(paths::kQuarantine, error), end; !error && entry != end;
         entry.increment(error)) {
        struct stat status = {};
        const std::string present = paths::kModules + entry->path().filename().string();
        if (entry->path().extension() == ".so" && lstat(present.c_str(), &status) != 0) {
            kept += (kept.empty() ? "" : ", ") + unit::quoted(entry->path().stem());
        }
    }
    std::string text = kept.empty() ? "" : "without what is in quarantine: " + kept;
    const std::optional<Start> start = latestStart();
    if (start && isFileName(start->loading)) {
        text += (text.empty() ? "" : "; ") + std::string("the start before ended at the module ") +
                unit::quoted(start->loading);
    }
    return text.empty() ? "" : text + "; what now: quillonctl doctor";
}

}  // namespace quillon::unit
