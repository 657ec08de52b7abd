// A firmware module that does something to the process that it was loaded into. What and when, the
// words of /etc/quillon-test/NAME.conf say, one after another:
//
//   exit-in-ENTRY    ends it
//   _exit-in-ENTRY   ends it by _exit
//   _Exit-in-ENTRY   ends it by _Exit
//   exit-twice-in-ENTRY   ends it on two threads
//   _exit-twice-in-ENTRY  ends it by _exit on two threads
//   crash-in-ENTRY   crashes
//   throw-in-ENTRY   raises an exception
//   fault-in-ENTRY   writes where nothing is
//   fault-beside-in-ENTRY  starts a thread, which does so once there is a file /tmp/quillon-test-go
//   exit-beside-in-ENTRY  starts a thread, which then ends the process
//   go-in-ENTRY      makes that file
//   noise-in-ENTRY   prints a line, and one to standard error
//   long-in-getActiveVersion  tells a version of 5 MB
//   overflow-in-ENTRY  overflows its stack
//   fork-in-ENTRY    forks a process, which exits
//   fork-at-once-in-ENTRY  forks a process, which exits by _exit
//   return-in-ENTRY  forks a process, which returns
//   stay-in-ENTRY    forks a process, which waits until there is a file /tmp/quillon-test-go
//   stray-in-ENTRY   the same, unnoticed by those who want to hear of every fork
//   kill-in-ENTRY    forks a process, ends it with SIGTERM, and tells in /tmp/quillon-test-child
//                    what signal ended it
//   wait-in-ENTRY    waits until there is a file /tmp/quillon-test-go
//   hang-in-ENTRY    does not return
//   trap-in-ENTRY    hangs as soon as anybody looks whether a file is there
//   block-in-ENTRY   blocks all signals on its thread
//   request-in-ENTRY asks the program to end
//   default-in-ENTRY lets SIGTERM do what it usually does
//   linger-in-ENTRY  keeps the program from ending, and no alarm clock rings
//   tool-in-ENTRY    starts a program that waits so, which tells its process identifier in
//                    /tmp/quillon-test-pid; and tells in /tmp/quillon-test-child how it ended
//   leave-in-ENTRY   takes its process out of its group, has it outlive the one that forked it, and
//                    tells its process identifier in /tmp/quillon-test-pid
//   rename-in-ENTRY  gives its thread another name
//   thread-in-ENTRY  starts a thread that never ends
//   load-in-ENTRY    has another thread load /var/tmp/slow.so, a copy of this module, and waits
//                    until that is being loaded: meanwhile no thread of the program can start
//   end-thread-in-ENTRY  ends its thread
//   mute-in-ENTRY    keeps everybody from writing to standard error
//   nofile-in-ENTRY  takes the right to open files from it
//   memory-in-ENTRY  leaves no memory for anybody
//   close-in-ENTRY   closes all its files but the standard ones
//
// One ENTRY is none: "load", the moment in which it is loaded.
//
// As the other test plug-ins it tells what it is asked in /tmp/quillon-test-NAME.log.

#include <dlfcn.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>

#include "fw-update-plugin.h"

#define ENTRY __attribute__((visibility("default")))

namespace {

std::string libraryPath()
{
    Dl_info info = {};
    dladdr(reinterpret_cast<const void*>(&libraryPath), &info);
    return info.dli_fname;
}

std::string ownName()
{
    std::string name = libraryPath();
    name.erase(0, name.rfind('/') + 1);
    return name.substr(0, name.rfind(".so"));
}

void hang()
{
    for (;;) {
        ::pause();
    }
}

void waitToGoOn()
{
    while (::access("/tmp/quillon-test-go", F_OK) != 0) {
        ::usleep(1000);
    }
}

bool g_isLong = false;
std::atomic<bool> g_isUpdated{false};

void fault()
{
    volatile int* volatile nowhere = nullptr;
    *nowhere = 1;
}

void trap()
{
    std::signal(SIGSYS, [](int) { hang(); });
    // Which of the calls it is, and which there are, depends on the machine and its C library.
    for (const unsigned int call : {
#ifdef SYS_access
             SYS_access,
#endif
#ifdef SYS_stat
             SYS_stat,
#endif
#ifdef SYS_stat64
             SYS_stat64,
#endif
#ifdef SYS_newfstatat
             SYS_newfstatat,
#endif
#ifdef SYS_fstatat64
             SYS_fstatat64,
#endif
#ifdef SYS_statx
             SYS_statx,
#endif
#ifdef SYS_faccessat2
             SYS_faccessat2,
#endif
             SYS_faccessat}) {
        sock_filter filter[] = {
            BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 1),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        };
        const sock_fprog program = {std::size(filter), filter};
        ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
        ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program);
    }
}

int overflow(volatile int* caller)
{
    volatile int more[1024];
    more[0] = *caller;
    return more[0] < 0 ? 0 : overflow(more) + more[0];
}

void act(const std::string& word, const std::string& moment)
{
    const auto is = [&](const char* what) { return word == what + ("-in-" + moment); };
    if (is("wait")) {
        waitToGoOn();
    }
    if (is("block")) {
        sigset_t all;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, nullptr);
    }
    if (is("request")) {
        ::raise(SIGTERM);
    }
    if (is("default")) {
        ::signal(SIGTERM, SIG_DFL);
    }
    if (is("linger")) {
        std::atexit([] {
            ::alarm(0);
            hang();
        });
    }
    if (is("trap")) {
        trap();
    }
    if ((is("stay") && ::fork() == 0) || (is("stray") && ::_Fork() == 0)) {
        waitToGoOn();
        ::_exit(0);
    }
    if (is("hang")) {
        hang();
    }
    if (is("rename")) {
        ::pthread_setname_np(::pthread_self(), "flasher");
    }
    if (is("thread")) {
        ::dlopen(libraryPath().c_str(), RTLD_NOW | RTLD_NODELETE);  // its code must stay
        std::thread(hang).detach();
    }
    if (is("end-thread")) {
        ::pthread_exit(nullptr);
    }
    if (is("load")) {
        std::thread([] { ::dlopen("/var/tmp/slow.so", RTLD_NOW | RTLD_NODELETE); }).detach();
        while (::access("/tmp/quillon-test-slow.log", F_OK) != 0) {
            ::usleep(1000);
        }
    }
    if (is("mute")) {
        std::thread([] {
            ::flockfile(stderr);
            hang();
        }).detach();
        while (::ftrylockfile(stderr) == 0) {
            ::funlockfile(stderr);
        }
    }
    if (is("nofile")) {
        const rlimit none = {};
        ::setrlimit(RLIMIT_NOFILE, &none);
    }
    if (is("memory")) {
        const rlimit none = {0, RLIM_INFINITY};
        ::setrlimit(RLIMIT_AS, &none);
        for (std::size_t size = std::size_t{1} << 20U; size >= 16; size /= 2) {
            while (std::malloc(size) != nullptr) {
            }
        }
    }
    if (is("close")) {
        for (int file = STDERR_FILENO + 1; file < 1024; ++file) {
            ::close(file);
        }
    }
    if (is("tool")) {
        const int status = std::system(
            "printf %s $$ >/tmp/quillon-test-pid\n"
            "until test -e /tmp/quillon-test-go; do sleep 0.01; done");
        std::ofstream("/tmp/quillon-test-child") << status;
    }
    if (is("leave")) {
        ::setpgid(0, ::getpgid(::getppid()));
        ::prctl(PR_SET_PDEATHSIG, 0);
        std::ofstream("/tmp/quillon-test-pid") << ::getpid();
    }
    if (is("exit")) {
        std::exit(0);
    }
    if (is("_exit")) {
        ::_exit(0);
    }
    if (is("_Exit")) {
        std::_Exit(0);
    }
    if (is("exit-twice")) {
        std::thread([] { std::exit(0); }).detach();
        std::exit(0);
    }
    if (is("_exit-twice")) {
        std::thread([] { ::_exit(0); }).detach();
        ::_exit(0);
    }
    if (is("throw")) {
        throw std::runtime_error("broken");
    }
    if (is("fault")) {
        fault();
    }
    if (is("fault-beside")) {
        std::thread([] {
            waitToGoOn();
            fault();
        }).detach();
    }
    if (is("exit-beside")) {
        std::thread([] {
            waitToGoOn();
            std::exit(0);
        }).detach();
    }
    if (is("go")) {
        std::ofstream("/tmp/quillon-test-go");
    }
    if (is("noise")) {
        std::printf("noise of %s\n", ownName().c_str());
        std::fprintf(stderr, "noise of %s\n", ownName().c_str());
    }
    if (is("long")) {
        g_isLong = true;
    }
    if (is("crash")) {
        std::abort();
    }
    if (is("overflow")) {
        volatile int first = 0;
        overflow(&first);
    }
    if (is("kill")) {
        const pid_t child = ::fork();
        if (child == 0) {
            for (;;) {
                ::pause();
            }
        }
        ::kill(child, SIGTERM);
        int status = 0;
        ::waitpid(child, &status, 0);
        std::ofstream("/tmp/quillon-test-child") << (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
    }
    if (is("fork") || is("fork-at-once") || is("return")) {
        const pid_t child = ::fork();
        if (child == 0 && is("return")) {
            return;
        }
        if (child == 0) {
            is("fork") ? std::exit(0) : ::_exit(0);
        }
        ::waitpid(child, nullptr, 0);
    }
}

void actAt(const std::string& moment)
{
    std::ofstream("/tmp/quillon-test-" + ownName() + ".log", std::ios::app)
        << ownName() + "." + moment + "()\n";
    std::ifstream words("/etc/quillon-test/" + ownName() + ".conf");
    std::istringstream text{std::string(std::istreambuf_iterator<char>(words), {})};
    words.close();
    for (std::string word; text >> word;) {
        act(word, moment);
    }
}

struct Loading
{
    Loading() { actAt("load"); }
} g_loading;

}  // namespace

ENTRY int setContext(const char* /*libraryName*/, CallerTypes /*caller*/, char* /*argument*/)
{
    actAt("setContext");
    return 0;
}

ENTRY int getEMPID(char* buffer)
{
    actAt("getEMPID");
    std::strcpy(buffer, (ownName() + "emp").c_str());
    return 0;
}

ENTRY int getActiveVersion(char* buffer)
{
    actAt("getActiveVersion");
    std::strcpy(buffer, g_isUpdated ? "2.0" : "1.0");
    if (g_isLong) {
        std::memset(buffer, 'x', 5'000'000);
    }
    return 0;
}

ENTRY int checkVersion(const char* /*version*/, int* need)
{
    actAt("checkVersion");
    *need = 1;
    return 0;
}

ENTRY int doUpdate(const char* /*path*/, unsigned long /*value*/)
{
    ::usleep(100000);  // one that is over at once may escape the registry
    actAt("doUpdate");
    g_isUpdated = true;
    return 0;
}

ENTRY int getUpdateProgress(unsigned int* /*percent*/)
{
    actAt("getUpdateProgress");
    return -1;
}

ENTRY int allUpdateDone(void)
{
    actAt("allUpdateDone");
    return 0;
}
