// What a module leaves behind in the service's process when all of its entries have been called.

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <set>
#include <thread>

#include "base/signals-blocked.h"
#include "src/support/checksum.h"
#include "tools/quillon-module/clause-functions.h"
#include "tools/quillon-module/module.h"
#include "tools/shared/deadline-child.h"
#include "tools/shared/signals.h"

namespace quillon::kit {

namespace {

namespace fs = std::filesystem;

/// The names in a directory of /proc.
std::set<std::string> namesIn(const char* directory)
{
    std::set<std::string> names;
    std::error_code failure;
    for (fs::directory_iterator entry(directory, failure), end; !failure && entry != end;
         entry.increment(failure)) {
        names.insert(entry->path().filename());
    }
    return names;
}

std::set<std::string> openFiles()
{
    std::set<std::string> files;
    for (const std::string& number : namesIn("/proc/self/fd")) {
        std::error_code failure;  // the directory through which this was read is closed again
        const fs::path file = fs::read_symlink("/proc/self/fd/" + number, failure);
        if (!failure) {
            files.insert(number + " (" + file.string() + ")");
        }
    }
    return files;
}

std::string addedTo(const std::set<std::string>& before, const std::set<std::string>& after)
{
    std::string added;
    for (const std::string& name : after) {
        if (before.count(name) == 0) {
            added += (added.empty() ? "" : ", ") + name;
        }
    }
    return added;
}

/// Everything that the service may ask of it; an update where there is an image.
void useAll(Module& module)
{
    const std::string version = module.version();
    if (!module.subject().isProcess()) {
        static_cast<void>(module.identifier());
    }
    int seconds = 0;
    if (module.has("getExpectedTime")) {
        module.getExpectedTime(seconds);
    }
    const bool isWanted = module.offer(versionAfter(version)).isWanted();
    if (isWanted && !module.subject().isProcess() && !module.subject().image.empty()) {
        const std::string image = contentOf(module.subject().image);
        const auto* const data = reinterpret_cast<const unsigned char*>(image.data());
        if (module.has("doUpdate_decryption")) {
            module.doUpdateFromStick(data, static_cast<int>(image.size()));
        }
        module.offer(versionAfter(module.version()), CALLER_SERVICE);
        module.doUpdate(module.subject().image.c_str(), imageChecksum(0, data, image.size()));
    }
    unsigned int percent = 0;
    if (module.has("getUpdateProgress")) {
        module.getUpdateProgress(percent);
    }
    if (module.has("allUpdateDone")) {
        module.allUpdateDone();
    }
}

}  // namespace

std::string holdThreads(Module& module)
{
    const std::set<std::string> before = namesIn("/proc/self/task");
    useAll(module);
    const std::string added = addedTo(before, namesIn("/proc/self/task"));
    require(added.empty(), "threads go on: " + added);
    return "";
}

/// Waits for a child to end, a second at most.
/// @return what waitpid() does
pid_t endOfAChild()
{
    constexpr int kTurns = 1000;
    pid_t child = 0;
    for (int turn = 0; turn < kTurns && child == 0; ++turn) {
        child = waitpid(-1, nullptr, WNOHANG | __WALL);
        if (child == 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    return child;
}

std::string holdChildren(Module& module)
{
    useAll(module);
    const pid_t child = endOfAChild();
    require(child < 0, child == 0 ? "a process that it has started still runs"
                                  : "it does not wait for a process that it has started: call "
                                    "waitpid");
    return "";
}

std::string holdDescriptors(Module& module)
{
    module.library();  // what its libraries open for themselves, as for locales, is not its doing
    const std::set<std::string> before = openFiles();
    useAll(module);
    const std::set<std::string> after = openFiles();
    const std::string added = addedTo(before, after);
    require(added.empty(), "open files: " + added);
    const std::string closed = addedTo(after, before);
    require(closed.empty(), "it closes what is not its own: " + closed);
    return "";
}

std::string holdSignals(Module& module)
{
    std::map<int, SignalHandler> handlers;
    for (int signal = 1; signal < NSIG; ++signal) {
        handlers[signal] = handlerOf(signal);
    }
    sigset_t mask;
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    useAll(module);
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    for (const auto& [signal, handler] : handlers) {
        require(handlerOf(signal) == handler, "it changes the handler of " + nameOfSignal(signal));
        require(sigismember(&mask, signal) == sigismember(&after, signal),
                "it changes whether " + nameOfSignal(signal) + " is blocked");
    }
    return "";
}

std::string holdWorkingDirectory(Module& module)
{
    const fs::path directory = fs::current_path();
    const mode_t mask = umask(077);
    umask(mask);
    useAll(module);
    require(fs::current_path() == directory, "it changes to " + fs::current_path().string());
    const mode_t after = umask(mask);
    require(after == mask, "it changes the file mask");
    return "";
}

std::string holdSilent(Module& module)
{
    const auto written = [] {
        static_cast<void>(std::fflush(nullptr));
        struct stat status = {};
        return fstat(STDOUT_FILENO, &status) == 0 && S_ISREG(status.st_mode)
                   ? lseek(STDOUT_FILENO, 0, SEEK_CUR)
                   : -1;
    };
    if (written() < 0) {
        notChecked("its output goes to a terminal");
    }
    const off_t before = written();
    useAll(module);
    const off_t bytes = written() - before;
    require(bytes == 0, "it writes " + std::to_string(bytes) + " bytes: see the log");
    return "";
}

}  // namespace quillon::kit
