#include "tools/quillonctl/modules/module-child.h"

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <new>
#include <sstream>
#include <system_error>
#include <type_traits>

#include "base/alphanumeric.h"
#include "src/src/fw-update-symbol-manager.h"
#include "src/support/paths.h"
#include "tools/quillonctl/modules/foreign-end.h"
#include "tools/quillonctl/modules/interruption.h"
#include "tools/quillonctl/modules/module-events.h"
#include "tools/quillonctl/modules/update-slot.h"
#include "tools/quillonctl/next-commands.h"
#include "tools/shared/signals.h"

namespace quillon {

namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr std::size_t kLongestText = 20480;  // more than is ever shown, whatever the alphabet
constexpr std::size_t kLongestName = 256;    // of a file, and the terminator
constexpr const char* kUnreadable = "what the process with the modules has left cannot be read";

/// What a child leaves behind, in memory: a module may close every file, and a process that it has
/// forked keeps files open for as long as it likes.
struct Shared
{
    std::atomic<std::int64_t> deadline;  ///< of the step, a monotonic time in ns
    std::atomic<bool> isComplete;        ///< the result is here
    std::atomic<bool> isMounting;        ///< it waits for who mounts, whatever the step
    std::atomic<bool> isMemoryUsedUp;    ///< by the culprit, as far as can be told
    std::atomic<int> crash;              ///< the signal
    ModuleStep step;
    char module[kLongestName];   ///< whose step it is, or was last
    char culprit[kLongestName];  ///< who crashed or ended the process; empty: it cannot be told
    std::size_t packagesSize;
    char packages[std::size_t{1} << 16U];  ///< identifiers of what may be mounted, a line each
    std::size_t resultSize;
    char result[std::size_t{1} << 24U];
};
static_assert(std::is_trivially_default_constructible_v<Shared>, "its memory is all zero");

struct Unmap
{
    void operator()(Shared* shared) const { munmap(shared, sizeof(Shared)); }
};
using SharedMemory = std::unique_ptr<Shared, Unmap>;

Shared* g_shared = nullptr;  // in a child
nanoseconds g_checkTime;     // the same
std::atomic<int> g_mounting{0};

SharedMemory makeShared()
{
    void* memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) {
        throw Failure{kExitSystem, std::string("no memory: ") + std::strerror(errno)};
    }
    return SharedMemory(new (memory) Shared);
}

/// With sizes: a version that a package offers may hold any character.
std::string packed(const std::vector<std::string>& texts)
{
    std::string whole;
    for (const std::string& text : texts) {
        const std::size_t size = text.size();
        whole.append(reinterpret_cast<const char*>(&size), sizeof(size)) += text;
    }
    return whole;
}

std::vector<std::string> unpacked(const std::string& whole)
{
    std::vector<std::string> texts;
    std::size_t size = 0;
    for (std::size_t at = 0; at < whole.size(); at += size) {
        if (whole.size() - at < sizeof(size)) {
            throw Failure{kExitSystem, kUnreadable};
        }
        std::memcpy(&size, &whole[at], sizeof(size));
        at += sizeof(size);
        if (whole.size() - at < size) {
            throw Failure{kExitSystem, kUnreadable};
        }
        texts.push_back(whole.substr(at, size));
    }
    return texts;
}

/// Safe in a signal handler.
void setName(char (&field)[kLongestName], const char* name)
{
    const std::size_t length = std::min(std::strlen(name), kLongestName - 1);
    std::memcpy(field, name, length);
    field[length] = '\0';
}

std::string textOf(const char (&field)[kLongestName])
{
    return {field, strnlen(field, kLongestName)};
}

void noteCrash(int signal, const char* name)
{
    g_shared->crash = signal;
    setName(g_shared->culprit, name);
}

/// Its package may be mounted from now on.
void notePackageOf(const std::string& libName)
{
    for (const FWUpdateSymbol& module : FWUpdateSymbolManager::getInstance()->modules()) {
        const std::string line = module.getEMPName() + "\n";
        if (module.getLibName() == libName &&
            line.size() <= sizeof(g_shared->packages) - g_shared->packagesSize) {
            line.copy(g_shared->packages + g_shared->packagesSize, line.size());
            g_shared->packagesSize += line.size();
        }
    }
}

void noteStep(const std::string& libName, ModuleStep step, const ModuleTimes& times)
{
    g_shared->step = step;
    if (step != ModuleStep::kNone) {
        setName(g_shared->module, libName.c_str());
    }
    if (step == ModuleStep::kChecking) {
        notePackageOf(libName);
    }
    // A module's thread or signal handler can also hang between two steps, so there is a deadline
    // there too. Once a package may be mounted it is the longer one: packages are unmounted there.
    const bool isLong =
        step == ModuleStep::kChecking || (step == ModuleStep::kNone && g_shared->packagesSize != 0);
    const milliseconds time = isLong ? times.check : times.query;
    g_shared->deadline = monotonicNow() + nanoseconds(time).count();
}

/// Exists while this process waits for who mounts, which is no module's time.
class Mounting
{
public:
    Mounting()
    {
        note(true);
        ++g_mounting;
    }
    ~Mounting()
    {
        --g_mounting;
        note(false);
    }
    Mounting(const Mounting&) = delete;
    Mounting& operator=(const Mounting&) = delete;

private:
    static void note(bool isMounting)
    {
        if (g_shared != nullptr) {
            g_shared->isMounting = isMounting;
            g_shared->deadline = monotonicNow() + g_checkTime.count();
        }
    }
};

/// @return what the parent gets: an exit code, and the texts of all rows or what went wrong
std::vector<std::string> resultOf(const std::function<ModuleChild::Rows()>& work)
{
    try {
        watchForForeignEnd(
            [](const std::string& name) {
                setName(g_shared->culprit, name.c_str());
                endAtOnce(kExitUnusableModule);
            },
            noteCrash);
        std::vector<std::string> result = {std::to_string(kExitSuccess)};
        for (const ModuleChild::Row& row : work()) {
            for (const std::string& text : row) {
                result.push_back(text.substr(0, kLongestText));
            }
        }
        return result;
    } catch (const Failure& failure) {
        return {std::to_string(failure.code), failure.text};
    } catch (const std::system_error& error) {
        return {std::to_string(kExitSystem), noThread(error).text};
    } catch (const std::bad_alloc&) {
        setName(g_shared->culprit, g_shared->module);
        g_shared->isMemoryUsedUp = true;
        endAtOnce(kExitSystem);
    } catch (const std::exception& error) {
        return {std::to_string(kExitSystem), error.what()};
    }
}

[[noreturn]] void beChild(const std::function<ModuleChild::Rows()>& work, const ModuleTimes& times)
{
    // Not in the terminal's foreground: what is written or read there must not stop it.
    onSignal(SIGTTOU, SIG_IGN);
    onSignal(SIGTTIN, SIG_IGN);
    RequestsHeld::release();
    ModuleEvents::instance().onSteps(
        [&](const std::string& libName, ModuleStep step) { noteStep(libName, step, times); });
    std::string result = packed(resultOf(work));
    noteStep("", ModuleStep::kNone, times);
    if (result.size() > sizeof(g_shared->result)) {
        result = packed({std::to_string(kExitSystem), "the modules say too much"});
    }
    result.copy(g_shared->result, result.size());
    g_shared->resultSize = result.size();
    g_shared->isComplete = true;
    // A module may keep its output locked.
    g_shared->deadline = monotonicNow() + nanoseconds(times.query).count();
    std::cout.flush();
    static_cast<void>(std::fflush(nullptr));
    endAtOnce(kExitSuccess);
}

pid_t start(const std::function<ModuleChild::Rows()>& work, const ModuleTimes& times,
            Shared* shared)
{
    std::cout.flush();
    static_cast<void>(std::fflush(nullptr));
    shared->deadline = monotonicNow() + nanoseconds(times.query).count();
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child == -1) {
        throw Failure{kExitSystem, std::string("no process can be started: ") +
                                       std::strerror(errno) +
                                       "; end other programs of this user or raise its limit"};
    }
    setpgid(child, child);  // in both: whoever comes first
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) {
            endAtOnce(kExitSystem);
        }
        g_shared = shared;
        g_checkTime = times.check;
        beChild(work, times);
    }
    return child;
}

/// @param isAsked  whether it is the module whose step it was
ModuleProblem judge(const ChildEnd& end, const Shared& shared, bool isAsked)
{
    static const std::map<ModuleStep, const char*> kMoments = {
        {ModuleStep::kLoading, " while it was loaded"},
        {ModuleStep::kVersion, " when it was asked for its version"},
        {ModuleStep::kChecking, " when it was asked whether it needs an update"}};
    const auto moment = kMoments.find(shared.step);
    const std::string when = isAsked && moment != kMoments.end() ? moment->second : "";
    const int crash = shared.crash;
    if (crash == 0 && end.judgedHung != 0) {
        return {"hung", "it hung" + when};
    }
    if (crash != 0 || WIFSIGNALED(end.status)) {
        return {"crashed", "it crashed" + when + " (" +
                               nameOfSignal(crash != 0 ? crash : WTERMSIG(end.status)) + ")"};
    }
    return {"ended",
            (shared.isMemoryUsedUp ? "it used up the memory" : "it ended the program") + when};
}

std::string copyOf(const char* text, std::size_t size, std::size_t longest)
{
    return {text, std::min(size, longest)};
}

ModuleChild::Rows rowsOf(const Shared& shared, std::size_t columns)
{
    const std::vector<std::string> texts =
        unpacked(copyOf(shared.result, shared.resultSize, sizeof(shared.result)));
    if (texts.empty()) {
        throw Failure{kExitSystem, kUnreadable};
    }
    const int code = std::atoi(texts.front().c_str());
    if (code != kExitSuccess) {
        throw Failure{static_cast<ExitCode>(code), texts.back()};
    }
    if ((texts.size() - 1) % columns != 0) {
        throw Failure{kExitSystem, kUnreadable};
    }
    ModuleChild::Rows rows;
    const auto size = static_cast<std::ptrdiff_t>(columns);
    for (auto row = texts.begin() + 1; row != texts.end(); row += size) {
        rows.emplace_back(row, row + size);
    }
    return rows;
}

/// The packages that it may have mounted.
std::set<std::string> packagesIn(const Shared& shared)
{
    std::set<std::string> packages;
    std::istringstream lines(copyOf(shared.packages, shared.packagesSize, sizeof(shared.packages)));
    for (std::string package; std::getline(lines, package);) {
        if (isAlphanumeric(package)) {  // the modules could write there as well
            packages.insert(package);
        }
    }
    return packages;
}

}  // namespace

extern "C" {
// Where the registry asks who mounts, the program is linked so that its calls arrive here.
int __real_PS_Mount(const char* text, int size, int reserved, int* result);
int __real_PS_Mknod(const char* text, int size, int reserved, int* result);
int __real_PS_Umount(const char* directory, int length, int reserved, int* result);

__attribute__((used)) int __wrap_PS_Mount(const char* text, int size, int reserved, int* result)
{
    const Mounting mounting;
    return __real_PS_Mount(text, size, reserved, result);
}

__attribute__((used)) int __wrap_PS_Mknod(const char* text, int size, int reserved, int* result)
{
    const Mounting mounting;
    return __real_PS_Mknod(text, size, reserved, result);
}

__attribute__((used)) int __wrap_PS_Umount(const char* directory, int length, int reserved,
                                           int* result)
{
    const Mounting mounting;
    return __real_PS_Umount(directory, length, reserved, result);
}
}

bool isMounting()
{
    return g_mounting > 0;
}

std::string remedyForMountingHelper()
{
    return "\"quillonctl doctor\" looks at it, and root starts it anew with \"" +
           restartMountingHelper() + "\"";
}

ModuleChild::Rows ModuleChild::run(std::size_t columns, const std::function<Rows()>& work)
{
    RequestsHeld requests;
    for (;;) {
        const SharedMemory shared = makeShared();
        const auto leavingOut = [&] {
            for (const auto& [name, fallen] : fallen_) {
                ModuleEvents::instance().leaveOut(name);
            }
            return work();
        };
        const ChildEnd end =
            waitForChild(start(leavingOut, times_, shared.get()), shared->deadline, requests);
        const std::set<std::string> packages = packagesIn(*shared);
        mounted_.insert(packages.begin(), packages.end());
        if (shared->isComplete && end.request == 0) {
            return rowsOf(*shared, columns);
        }
        const bool isHung = end.request == 0 && end.judgedHung != 0;
        if (isHung && end.judgedHung == shared->deadline && shared->isMounting) {
            packages_.clear();  // to unmount them would be to wait for the same helper again
            isHelperLost_ = true;
            throw Failure{kExitSystem,
                          "the mounting helper does not answer; " + remedyForMountingHelper()};
        }
        packages_.insert(packages.begin(), packages.end());
        if (end.request != 0) {
            requests.putBack(end.request);
            throw UpdateSlot::instance().interruption();
        }
        if (isHung && end.judgedHung != shared->deadline) {
            continue;  // it answered at the very last moment
        }
        const std::string asked =
            shared->step != ModuleStep::kNone ? textOf(shared->module) : std::string();
        const std::string culprit = textOf(shared->culprit);
        // A library that others need is there although it was left out as a module.
        const std::string& name = culprit.empty() || fallen_.count(culprit) != 0 ? asked : culprit;
        const ModuleProblem problem = judge(end, *shared, name == asked);
        if (name.empty() || !fallen_.emplace(name, problem).second) {
            throw Failure{
                kExitSystem,
                "one of the modules is broken, but it cannot be told which: " + problem.text +
                    "; move them out of " + paths::kModules + " one by one"};
        }
    }
}

}  // namespace quillon
