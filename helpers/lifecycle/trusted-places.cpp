#include "helpers/lifecycle/trusted-places.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <set>
#include <system_error>
#include <utility>

#include "src/support/paths.h"

namespace quillon::unit {

namespace {

namespace fs = std::filesystem;

constexpr int kMostLinks = 40;
constexpr mode_t kGroupAndOthersWrite = 0022;

bool isPlain(unsigned char character)
{
    return std::isalnum(character) != 0 || std::strchr("/._-+:@", character) != nullptr;
}

std::string octal(mode_t mode)
{
    char text[8];
    static_cast<void>(std::snprintf(text, sizeof text, "%04o", mode & 07777U));
    return text;
}

/// Collects the faults. Each path is looked at once.
class Inspection
{
public:
    std::vector<PlaceFault> takeFaults() { return std::move(faults_); }

    void inspect(const std::string& place) { inspectEntriesOf(resolve(place)); }

private:
    /// Nothing where there is no directory, or only a link to one.
    void inspectEntriesOf(const std::string& path)
    {
        std::error_code error;
        if (!fs::is_directory(fs::symlink_status(path, error))) {
            return;
        }
        for (fs::directory_iterator entry(path, error), end; !error && entry != end;
             entry.increment(error)) {
            const std::string child = entry->path();
            static_cast<void>(resolve(child));
            inspectEntriesOf(child);
        }
        if (error) {
            complainOfHidden(path, "cannot be read: " + error.message());
        }
    }

    /// Walks down a path, looks at each step, and follows links.
    /// @return the path without links; empty when it leads to nothing.
    std::string resolve(const std::string& place)
    {
        std::string rest = place;
        std::string done;
        int links = 0;
        look("/");
        while (!rest.empty()) {
            const std::string step = takeStep(rest);
            if (step.empty() || step == ".") {
                continue;
            }
            if (step == "..") {
                done.erase(std::min(done.size(), done.rfind('/')));
                continue;
            }
            const std::string path = std::string(done).append("/").append(step);
            struct stat status = {};
            if (lstat(path.c_str(), &status) != 0) {
                return complainUnlessMissing(path);
            }
            look(path);
            if (!S_ISLNK(status.st_mode)) {
                done = path;
                continue;
            }
            std::error_code error;
            const std::string target = fs::read_symlink(path, error);
            if (target.empty() || ++links > kMostLinks) {
                complain(path, "is a link that leads nowhere", "rm " + quoted(path));
                return "";
            }
            rest.insert(0, target + "/");
            done = target.front() == '/' ? "" : done;
        }
        return done.empty() ? "/" : done;
    }

    static std::string takeStep(std::string& rest)
    {
        const std::size_t end = std::min(rest.find('/'), rest.size());
        std::string step = rest.substr(0, end);
        rest.erase(0, end + 1);
        return step;
    }

    std::string complainUnlessMissing(const std::string& path)
    {
        if (errno != ENOENT && errno != ENOTDIR) {
            complainOfHidden(path, std::string("cannot be examined: ") + std::strerror(errno));
        }
        return "";
    }

    void look(const std::string& path)
    {
        struct stat status = {};
        if (!seen_.insert(path).second || lstat(path.c_str(), &status) != 0) {
            return;
        }
        if (status.st_uid != 0) {
            complain(path, "belongs to user " + std::to_string(status.st_uid) + ", not to root",
                     "chown -h root " + quoted(path));
        }
        if (!S_ISLNK(status.st_mode) && (status.st_mode & kGroupAndOthersWrite) != 0) {
            complain(path,
                     "can be written by others than root (mode " + octal(status.st_mode) + ")",
                     "chmod go-w " + quoted(path));
        }
    }

    void complain(const std::string& path, const std::string& fault, const std::string& remedy)
    {
        faults_.push_back({quoted(path) + " " + fault, remedy});
    }

    void complainOfHidden(const std::string& path, const std::string& fault)
    {
        faults_.push_back({quoted(path) + " " + fault, "run this as root", true});
    }

    std::set<std::string> seen_;
    std::vector<PlaceFault> faults_;
};

}  // namespace

std::string quoted(const std::string& path)
{
    if (std::all_of(path.begin(), path.end(), isPlain)) {
        return path;
    }
    std::string text = "$'";
    for (const unsigned char character : path) {
        if (isPlain(character) || character == ' ') {
            text += static_cast<char>(character);
            continue;
        }
        char escaped[5];
        static_cast<void>(std::snprintf(escaped, sizeof escaped, "\\x%02x", character));
        text += escaped;
    }
    return text + "'";
}

std::vector<std::string> trustedPlaces()
{
    return {QUILLON_TRUSTED_KEYS,    QUILLON_PROVISIONING_CERTIFICATES, QUILLON_TRUST_POLICY,
            QUILLON_SECURITY_FLOORS, paths::kVerifierLibrary,           paths::kModules};
}

std::vector<PlaceFault> inspectPlaces(const std::vector<std::string>& places)
{
    Inspection inspection;
    for (const std::string& place : places) {
        inspection.inspect(place);
    }
    return inspection.takeFaults();
}

std::vector<std::string> faultsOf(const std::vector<std::string>& places)
{
    std::vector<std::string> lines;
    for (const PlaceFault& fault : inspectPlaces(places)) {
        lines.push_back(fault.text + "; mend it: " + fault.remedy);
    }
    return lines;
}

}  // namespace quillon::unit
