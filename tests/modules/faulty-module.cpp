// A firmware module without a fault, until the file NAME.fault beside the library names one. Its
// component is the file NAME.version beside it. Faults of the linkage are built in: see
// CMakeLists.txt.

#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#ifdef FAULT_MANGLED
#include <cstdint>
enum CallerTypes : int32_t {};
#define FW_PLUGIN_TEXT_SIZE 128
#define PLAIN extern "C" __attribute__((visibility("default")))
#define SOMETIMES_PLAIN __attribute__((visibility("default")))
#else
#include "fw-update-plugin.h"
#define PLAIN __attribute__((visibility("default")))
#define SOMETIMES_PLAIN PLAIN
#endif

#ifdef FAULT_MISSING_LIBRARY
int inTheLibraryThatIsGone();
#endif
#ifdef FAULT_MISSING_SYMBOL
int nobodyHasThis();
#endif

namespace {

std::string beside(const char* extension)
{
    Dl_info info = {};
    dladdr(reinterpret_cast<const void*>(&beside), &info);
    const std::string library = info.dli_fname;
    return library.substr(0, library.rfind(".so")) + extension;
}

std::string ownName()
{
    const std::string path = beside("");
    return path.substr(path.rfind('/') + 1);
}

std::string textOf(const std::string& path)
{
    std::ifstream file(path);
    std::string text;
    std::getline(file, text);
    return text;
}

bool has(const char* fault)
{
    return textOf(beside(".fault")) == fault;
}

std::string offered;
std::string unkeptVersion;  // of a module that forgets it
const char* keptText = nullptr;
const char* keptArgument = nullptr;
const unsigned char* keptPayload = nullptr;
volatile char seen = 0;
std::atomic<unsigned int> percent{0};
std::atomic<bool> isUpdating{false};
std::atomic<bool> wasAskedMeanwhile{false};

std::string running()
{
    const std::string version = textOf(beside(".version"));
    return version.empty() ? "1.0" : version;
}

bool isVersion(const std::string& text)
{
    return !text.empty() && text.size() < FW_PLUGIN_TEXT_SIZE &&
           std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c <= '~'; });
}

int failWith(int error)
{
    errno = has("no errno") ? 0 : error;
    return -1;
}

/// A process that has left its group and its parent, and tells its number beside the module.
void leaveDaemon()
{
    const pid_t between = fork();
    if (between == 0) {
        setsid();
        if (fork() == 0) {
            std::ofstream(beside(".daemons"), std::ios::app) << getpid() << '\n' << std::flush;
            pause();
        }
        _exit(0);
    }
    waitpid(between, nullptr, 0);
}

/// Prints more than anybody would read, and crashes when all of it is kept.
void flood()
{
    constexpr off_t kMost = 1 << 16;
    const std::vector<char> text(2 * kMost, '.');
    static_cast<void>(!write(STDOUT_FILENO, text.data(), text.size()));
    struct stat kept = {};
    if (fstat(STDOUT_FILENO, &kept) == 0 && kept.st_size > kMost) {
        std::abort();
    }
}

void leaveSomething()
{
    if (has("leaves a thread")) {
        std::thread([] { pause(); }).detach();
    } else if (has("leaves a process")) {
        if (fork() == 0) {
            pause();
        }
    } else if (has("leaves a daemon")) {
        leaveDaemon();
    } else if (has("leaves a daemon and crashes")) {
        leaveDaemon();
        std::abort();
    } else if (has("kills its parent")) {
        kill(getppid(), SIGKILL);
    } else if (has("stops its parent")) {
        kill(getppid(), SIGSTOP);
    } else if (has("leaves a zombie")) {
        if (fork() == 0) {
            _exit(0);
        }
    } else if (has("child returns")) {
        static_cast<void>(fork());
    } else if (has("leaves a file open")) {
        static_cast<void>(open("/dev/null", O_RDONLY));
    } else if (has("closes files")) {
        close(STDIN_FILENO);
    } else if (has("changes a signal")) {
        static_cast<void>(signal(SIGCHLD, SIG_IGN));
    } else if (has("blocks a signal")) {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &set, nullptr);
    } else if (has("changes the directory")) {
        static_cast<void>(!chdir("/"));
    } else if (has("changes the file mask")) {
        umask(0);
    } else if (has("talks")) {
        std::puts("faulty module: asked");
    } else if (has("floods")) {
        flood();
    }
}

int install(const unsigned char* data, std::size_t length)
{
    isUpdating = true;
    const std::string version = keptText != nullptr ? keptText : offered;
    if (version.empty() && !has("installs unasked")) {
        return failWith(ENODATA);
    }
    if (length == 0 && !has("forgets an empty update")) {
        return failWith(EINVAL);
    }
    if (has("reads too far")) {
        seen = static_cast<char>(data[length]);
    }
    if (has("changes the payload")) {
        *const_cast<unsigned char*>(data) = 0;
    }
    keptPayload = has("keeps the payload") ? data : nullptr;
    if (has("is late")) {
        std::this_thread::sleep_for(std::chrono::milliseconds(3500));
    }
    if (has("crashes when asked meanwhile")) {
        while (!wasAskedMeanwhile) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    if (has("hangs")) {
        for (;;) {
            pause();
        }
    }
    if (has("crashes")) {
        std::abort();
    }
    if (has("exits")) {
        std::exit(0);
    }
    if (has("throws")) {
        throw std::runtime_error("no component");
    }
    percent = has("ends at 90") ? 90 : 100;
    isUpdating = false;
    if (has("forgets the version")) {
        unkeptVersion = version;
    } else if (!has("lies about the version") && length > 0) {
        std::ofstream(beside(".version")) << (version.empty() ? "9.9" : version);
    }
    if (has("fails but updates")) {
        errno = EIO;
        return -1;
    }
    return 0;
}

struct ThrowsWhenLoaded
{
    ThrowsWhenLoaded()
    {
        if (has("throws when loaded")) {
            throw std::runtime_error("no hardware");
        }
    }
} throwsWhenLoaded;

}  // namespace

#ifdef FAULT_EXPORTS
PLAIN int helperOfEveryModule = 1;
#endif

#ifdef FAULT_CRASH_AT_UNLOAD
namespace {
struct Ending
{
    ~Ending() { std::abort(); }
} ending;
}  // namespace
#endif

SOMETIMES_PLAIN int setContext(const char* /*libraryName*/, CallerTypes caller, char* argument)
{
    if (has("refuses a caller") && static_cast<int>(caller) == 5) {
        return -1;
    }
    if (has("reads a null argument")) {
        seen = *argument;
    }
    if (has("changes the argument") && argument != nullptr && *argument != '\0') {
        *argument = 'x';
    }
    if (has("keeps the argument") && argument != nullptr) {
        keptArgument = argument;
    }
    return 0;
}

PLAIN int getEMPID(char* buffer)
{
    std::string text = ownName() + "emp";
    text = has("identifier with a dash")   ? "a-" + text
           : has("identifier without emp") ? ownName()
           : has("identifier with two")    ? ownName() + "empemp"
           : has("identifier is taken")    ? "takenemp"
           : has("identifier is long")     ? std::string(200, 'a') + "emp"
                                           : text;
    std::memcpy(buffer, text.c_str(), text.size() + 1);
    return 0;
}

PLAIN int getActiveVersion(char* buffer)
{
    leaveSomething();
    if (isUpdating) {
        wasAskedMeanwhile = true;
        if (has("crashes when asked meanwhile")) {
            std::abort();
        }
    }
    if (has("is slow")) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    }
    static int count = 0;
    std::string text = unkeptVersion.empty() ? running() : unkeptVersion;
    text = has("version is empty")       ? ""
           : has("version is long")      ? std::string(300, '1')
           : has("version is noise")     ? "\x01\x02"
           : has("tells something else") ? std::to_string(++count)
           : has("version has no end")   ? std::string(FW_PLUGIN_TEXT_SIZE, '1')
                                         : text;
    std::memcpy(buffer, text.c_str(), text.size() + (has("version has no end") ? 0 : 1));
    return has("version fails") ? -1 : 0;
}

PLAIN int checkVersion(const char* version, int* need)
{
    const std::string text = version;
    keptText = has("keeps the version") ? version : nullptr;
    const bool isTaken = isVersion(text) || (has("takes noise") && !text.empty()) ||
                         (has("takes an empty version") && text.empty()) ||
                         (has("takes a long version") && text.size() >= FW_PLUGIN_TEXT_SIZE);
    if (!isTaken) {
        errno = EINVAL;
        return -1;
    }
    if (has("never answers")) {
        return 0;
    }
    if (has("crashes at an older version") && text == "0") {
        std::abort();
    }
    offered = text;
    *need = text != running() || has("wants the same again") ? 1 : 0;
    *need = has("answers 2") ? 2 : *need;
    if (has("refuses every version")) {
        return -1;
    }
    return 0;
}

PLAIN int doUpdate_decryption(const unsigned char* data, int length)
{
    if (has("fails")) {
        return failWith(EIO);
    }
    return install(data, static_cast<std::size_t>(length));
}

#ifndef FAULT_NULL_ENTRY
PLAIN int doUpdate(const char* path, unsigned long /*value*/)
{
    static int kept = -1;
    static const char* keptPath = nullptr;
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    struct stat status = {};
    const bool isFile = fstat(file, &status) == 0 && S_ISREG(status.st_mode);
    std::ifstream stream(isFile ? path : "", std::ios::binary);
    const std::string content{std::istreambuf_iterator<char>(stream),
                              std::istreambuf_iterator<char>()};
    if (has("keeps the image open")) {
        kept = file;
    } else {
        close(file);
    }
    keptPath = has("keeps the path") ? path : nullptr;
    if (keptPath != nullptr) {
        keptArgument = keptPath;
    }
    if (file < 0 && has("installs a missing file")) {
        return install(nullptr, 1);
    }
    if (content.empty()) {
        return failWith(kept < 0 ? ENOENT : EISDIR);
    }
    return install(reinterpret_cast<const unsigned char*>(content.data()), content.size());
}

#endif

#ifndef FAULT_WITHOUT_TIME
PLAIN int getExpectedTime(int* seconds)
{
    *seconds = has("expects nothing") ? 0 : 1;
    return 0;
}
#endif

PLAIN int getUpdateProgress(unsigned int* progress)
{
    if (keptArgument != nullptr) {
        seen = *keptArgument;
    }
    if (keptPayload != nullptr) {
        seen = static_cast<char>(*keptPayload);
    }
    *progress = has("is over 100") ? 250 : percent.load();
    return 0;
}

PLAIN int allUpdateDone()
{
#ifdef FAULT_MISSING_LIBRARY
    return inTheLibraryThatIsGone();
#elif defined(FAULT_MISSING_SYMBOL)
    return nobodyHasThis();
#else
    return has("the run fails") ? -1 : 0;
#endif
}
