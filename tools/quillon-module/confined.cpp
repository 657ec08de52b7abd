#include "tools/quillon-module/confined.h"

#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <system_error>

#include "base/piped-program.h"
#include "src/support/paths.h"
#include "tools/shared/deadline-child.h"

namespace quillon::kit {

namespace {

namespace fs = std::filesystem;

constexpr const char* kUnit = "quillon.service";
constexpr const char* kLog = "quillon-module.log";
constexpr std::size_t kMostOfUnit = 1048576;
constexpr const char* kBlanks = " \t\r\n";
constexpr int kNoSystemdRun = 127;

bool beginsWith(const std::string& text, const std::string& begin)
{
    return text.rfind(begin, 0) == 0;
}

/// Whether a setting confines the process. The others say how the unit is started and ended.
bool isConfinement(const std::string& name)
{
    if (name == "ExecPaths" || name == "ExecSearchPath") {
        return true;
    }
    static const std::set<std::string> kOthers = {"Type",    "NotifyAccess",    "PIDFile",
                                                  "BusName", "RemainAfterExit", "SuccessExitStatus",
                                                  "Sockets", "RuntimeMaxSec"};
    for (const char* begin : {"Exec", "Restart", "Standard", "Timeout", "Watchdog"}) {
        if (beginsWith(name, begin)) {
            return false;
        }
    }
    return kOthers.count(name) == 0;
}

std::string trimmed(const std::string& text)
{
    const std::size_t begin = text.find_first_not_of(kBlanks);
    return begin == std::string::npos
               ? ""
               : text.substr(begin, text.find_last_not_of(kBlanks) + 1 - begin);
}

std::vector<std::string> environment()
{
    std::vector<std::string> variables;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        variables.emplace_back(*variable);
    }
    return variables;
}

/// systemctl lies in /bin on some machines.
ProgramEnd systemctl(const std::vector<std::string>& arguments, SecretBytes& output)
{
    ProgramCall call{"/usr/bin/env", {"env", "systemctl"}, environment(), {}, kMostOfUnit, {}};
    call.words.insert(call.words.end(), arguments.begin(), arguments.end());
    return runPiped(call, {}, output);
}

std::string textOfUnit()
{
    SecretBytes text;
    const ProgramEnd end = systemctl({"--no-pager", "cat", kUnit}, text);
    if (!end.failure.empty()) {
        throw Failure(kExitFile, std::string("--confined needs systemd and its unit ") + kUnit +
                                     ": systemctl cat says \"" + trimmed(end.complaint) + "\"");
    }
    return {text.begin(), text.end()};
}

/// The modules and what describes them, in a directory that everybody may read.
class Stage
{
public:
    explicit Stage(const CheckRequest& request)
    {
        if (mkdtemp(path_) == nullptr) {
            throw Failure(kExitFile,
                          std::string("no directory can be made in /run: ") + std::strerror(errno));
        }
        try {
            fs::permissions(path_, fs::perms(0755));
            for (const std::string& file : request.files) {
                bring(file);
            }
            bring(request.image);
            bring(request.info);
            std::ofstream(log()).flush();
            fs::permissions(log(), fs::perms(0666));
        } catch (...) {
            remove();
            throw;
        }
    }
    ~Stage() { remove(); }
    Stage(const Stage&) = delete;
    Stage& operator=(const Stage&) = delete;

    std::string path() const { return path_; }
    std::string log() const { return path() + "/" + kLog; }

    void bringLogTo(const std::string& path) const
    {
        std::ifstream from(log(), std::ios::binary);
        std::ofstream to(path, std::ios::binary);
        if (from.peek() != EOF) {
            to << from.rdbuf();
        }
        if (!to.flush()) {
            throw Failure(kExitFile, path + " cannot be written");
        }
    }

private:
    void bring(const std::string& file) const
    {
        if (file.empty()) {
            return;
        }
        const fs::path target = path() + "/" + fs::path(file).filename().string();
        if (fs::exists(target)) {
            throw Failure(kExitUsage,
                          "--confined puts all files into one directory: two are named " +
                              target.filename().string());
        }
        fs::copy_file(file, target);
        fs::permissions(target, fs::perms(0644));
    }

    void remove() const
    {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }

    char path_[28] = "/run/quillon-module-XXXXXX";
};

std::string inUnit(const std::string& file)
{
    return paths::kModules + fs::path(file).filename().string();
}

/// The command line that judges the same in the unit.
std::vector<std::string> wordsFor(const CheckRequest& request)
{
    std::vector<std::string> words = {fs::read_symlink("/proc/self/exe"), "check",
                                      "--level=" + std::to_string(request.level),
                                      "--timeout=" + std::to_string(request.seconds)};
    const auto addWhere = [&](bool isGiven, const std::string& word) {
        if (isGiven) {
            words.push_back(word);
        }
    };
    addWhere(!request.filter.empty(), "--filter=" + request.filter);
    addWhere(!request.image.empty(), "--image=" + inUnit(request.image));
    addWhere(!request.info.empty(), "--info=" + inUnit(request.info));
    addWhere(!request.log.empty(), "--log=" + inUnit(kLog));
    addWhere(request.onlyFailed, "--only-failed");
    addWhere(request.json, "--json");
    for (const std::string& file : request.files) {
        words.push_back(inUnit(file));
    }
    return words;
}

/// After fork().
[[noreturn]] void become(const std::vector<char*>& words, pid_t parent)
{
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) {
        _exit(kNoSystemdRun);
    }
    RequestsHeld::release();
    execvp(words.front(), words.data());
    _exit(kNoSystemdRun);
}

/// @return its exit status
int runToItsEnd(std::vector<std::string> texts, const std::string& unit, RequestsHeld& requests)
{
    std::vector<char*> words;
    words.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        words.push_back(text.data());
    }
    words.push_back(nullptr);
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child == -1) {
        throw Failure(kExitFile, std::string("no process can be started: ") + std::strerror(errno));
    }
    setpgid(child, child);  // in both: whoever comes first
    if (child == 0) {
        become(words, parent);
    }
    const std::atomic<std::int64_t> never = INT64_MAX;  // each clause has a deadline of its own
    const ChildEnd end = waitForChild(child, never, requests);
    if (end.request != 0) {
        SecretBytes ignored;
        systemctl({"stop", unit}, ignored);
        requests.putBack(end.request);
        throw Failure(kExitInterrupted, "interrupted");
    }
    return WIFEXITED(end.status) ? WEXITSTATUS(end.status) : kNoSystemdRun;
}

}  // namespace

std::vector<std::string> confinementOf(const std::string& unit)
{
    std::vector<std::string> settings;
    std::istringstream lines(unit);
    std::string setting;
    bool isService = false;
    for (std::string line; std::getline(lines, line);) {
        const std::string text = trimmed(line);
        if (text.empty() || text[0] == '#' || text[0] == ';') {
            continue;
        }
        if (text[0] == '[') {
            isService = text == "[Service]";
            continue;
        }
        setting += text;
        if (setting.back() == '\\') {
            setting.back() = ' ';
            continue;
        }
        const std::size_t equals = setting.find('=');
        const std::string name = trimmed(setting.substr(0, equals));
        if (isService && equals != std::string::npos && isConfinement(name)) {
            settings.push_back(name + "=" + trimmed(setting.substr(equals + 1)));
        }
        setting.clear();
    }
    return settings;
}

ExitCode checkConfined(const CheckRequest& request)
{
    if (request.inProcess) {
        throw Failure(kExitUsage, "--confined judges in a unit of its own: leave --in-process out");
    }
    if (geteuid() != 0) {
        throw Failure(kExitFile, "--confined starts a unit, which only root may");
    }
    const std::string unit = "quillon-module-" + std::to_string(getpid()) + ".service";
    std::vector<std::string> words = {"systemd-run", "--quiet",   "--pipe",
                                      "--wait",      "--collect", "--unit=" + unit};
    for (const std::string& setting : confinementOf(textOfUnit())) {
        words.push_back("--property=" + setting);
    }
    RequestsHeld requests;  // one that ends this program does so when the stage has gone
    const Stage stage(request);
    words.push_back("--property=BindPaths=" + stage.path() + ":" + paths::kModules);
    // Files in /run may not be executed, and neither may they where they are shown elsewhere.
    words.push_back(std::string("--property=ExecPaths=") + paths::kModules);
    words.emplace_back("--");
    const std::vector<std::string> inner = wordsFor(request);
    words.insert(words.end(), inner.begin(), inner.end());
    const int status = runToItsEnd(words, unit, requests);
    const bool isJudged = status == kExitSuccess || status == kExitBroken;
    if (!isJudged && status != kExitUsage && status != kExitFile) {
        throw Failure(kExitFile, "the unit for --confined has ended with status " +
                                     std::to_string(status) + ": see journalctl -u " + unit);
    }
    if (isJudged && !request.log.empty()) {
        stage.bringLogTo(request.log);
    }
    return static_cast<ExitCode>(status);
}

}  // namespace quillon::kit
