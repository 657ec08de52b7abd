// Functions in front of the C library's, GLib's and libcrypto's, found first since this library is
// searched first. Each hands on to the next definition.
//
// A sanitizer's runtime comes first in the search order and calls these in turn, as early as while
// it initialises itself. Hence: this file is compiled without instrumentation, its state needs no
// initialisation, and with nothing switched on a call does nothing but hand on.

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <glib.h>
#include <mqueue.h>
#include <openssl/evp.h>
#include <pthread.h>
#include <semaphore.h>
#include <stdarg.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>
#include <utility>

#include "fakes/recorder.h"

namespace quillon::fakes {
namespace {

enum Function : unsigned int {
    kAccess,
    kClockGettime,
    kDlclose,
    kDlopen,
    kCipherInit,
    kCipherUpdate,
    kFopen,
    kFread,
    kTimeoutAdd,
    kLstat,
    kMkdir,
    kMqClose,
    kMqOpen,
    kMqReceive,
    kMqSend,
    kMqUnlink,
    kOpendir,
    kPrctl,
    kPthreadCondClockwait,
    kPthreadCreate,
    kPthreadDetach,
    kRealpath,
    kRemove,
    kSemClose,
    kSemOpen,
    kSemPost,
    kSemWait,
    kSetxattr,
    kStat,
    kUsleep,
    kFunctions
};

constexpr const char* kNames[kFunctions] = {"access",
                                            "clock_gettime",
                                            "dlclose",
                                            "dlopen",
                                            "EVP_CipherInit",
                                            "EVP_CipherUpdate",
                                            "fopen64",
                                            "fread",
                                            "g_timeout_add",
                                            "lstat",
                                            "mkdir",
                                            "mq_close",
                                            "mq_open",
                                            "mq_receive",
                                            "mq_send",
                                            "mq_unlink",
                                            "opendir",
                                            "prctl",
                                            "pthread_cond_clockwait",
                                            "pthread_create",
                                            "pthread_detach",
                                            "realpath",
                                            "remove",
                                            "sem_close",
                                            "sem_open",
                                            "sem_post",
                                            "sem_wait",
                                            "setxattr",
                                            "stat",
                                            "usleep"};

// On 32 bits the calls that carry a time have a second name each, for 64-bit times.
#if defined(__USE_TIME_BITS64) && __TIMESIZE == 32
#define QUILLON_SECOND_NAMES
#endif

const char* symbolOf(Function function)
{
#ifdef QUILLON_SECOND_NAMES
    switch (function) {
        case kClockGettime:
            return "__clock_gettime64";
        case kLstat:
            return "__lstat64_time64";
        case kPrctl:
            return "__prctl_time64";
        case kPthreadCondClockwait:
            return "__pthread_cond_clockwait64";
        case kStat:
            return "__stat64_time64";
        default:
            break;
    }
#endif
    return kNames[function];
}

struct State
{
    std::atomic<void*> next{nullptr};
    std::atomic<bool> isRecorded{false};
    std::atomic<int> skips{0};
    std::atomic<int> failures{0};
    std::atomic<int> error{0};
};
State states[kFunctions];

std::atomic<bool> fastSleep{false};
std::atomic<bool> ownClock{false};
std::atomic<std::int64_t> ownNanoseconds{0};
std::atomic<std::size_t> failingAllocation{0};
std::atomic<bool> detachJoins{false};
std::atomic<pthread_mutex_t*> waitersMutex{nullptr};  // of the timed wait that goes on
std::atomic<std::function<void()>*> beforeWait{nullptr};

// What is opened in the place of a path.
std::atomic<bool> hasStandIns{false};
std::mutex standInMutex;
std::map<std::string, std::string>& standIns()
{
    static auto* paths = new std::map<std::string, std::string>;
    return *paths;
}

std::string standInFor(const char* path)
{
    const std::lock_guard<std::mutex> lock(standInMutex);
    const auto found = standIns().find(path);
    return found == standIns().end() ? path : found->second;
}

// What a descriptor, a handle or a semaphore was opened as.
std::mutex openedMutex;
std::map<std::uintptr_t, std::string>& opened()
{
    static auto* names = new std::map<std::uintptr_t, std::string>;
    return *names;
}

void rememberName(std::uintptr_t handle, const std::string& name)
{
    const int error = errno;
    {
        const std::lock_guard<std::mutex> lock(openedMutex);
        opened()[handle] = name;
    }
    errno = error;
}

constexpr const char* kUnknown = "unknown";

std::string nameOf(std::uintptr_t handle)
{
    const std::lock_guard<std::mutex> lock(openedMutex);
    const auto found = opened().find(handle);
    return found == opened().end() ? kUnknown : found->second;
}

std::uintptr_t handleOf(const void* pointer)
{
    return reinterpret_cast<std::uintptr_t>(pointer);
}

// Descriptors are kept apart from pointers, of which none is that small.
std::uintptr_t handleOf(mqd_t queue)
{
    return static_cast<std::uintptr_t>(queue);
}

template <typename Signature>
Signature* next(Function function)
{
    void* found = states[function].next.load(std::memory_order_relaxed);
    if (found == nullptr) {
        found = dlsym(RTLD_NEXT, symbolOf(function));
        states[function].next.store(found, std::memory_order_relaxed);
    }
    return reinterpret_cast<Signature*>(found);
}

bool isRecorded(Function function)
{
    return states[function].isRecorded.load(std::memory_order_relaxed);
}

// True when this call is to fail; errno is set then.
bool fails(Function function)
{
    State& state = states[function];
    if (state.failures.load() <= 0) {
        return false;
    }
    if (state.skips.load() > 0) {
        state.skips.fetch_sub(1);
        return false;
    }
    if (state.failures.fetch_sub(1) <= 0) {
        return false;
    }
    errno = state.error.load();
    return true;
}

template <typename Result>
Result recorded(Function function, const std::string& arguments, Result result)
{
    if (isRecorded(function)) {
        recordCall(std::string(kNames[function]) + "(" + arguments +
                   ") = " + std::to_string(result));
    }
    return result;
}

void recordOpening(Function function, const std::string& arguments, bool succeeded)
{
    if (isRecorded(function)) {
        recordCall(std::string(kNames[function]) + "(" + arguments +
                   ") = " + (succeeded ? "ok" : "failed"));
    }
}

Function functionOf(const char* name)
{
    for (unsigned int i = 0; i < kFunctions; ++i) {
        if (std::strcmp(kNames[i], name) == 0) {
            return static_cast<Function>(i);
        }
    }
    throw std::invalid_argument(std::string("the recording platform does not know ") + name);
}

std::string openFlags(int flags)
{
    std::string text = (flags & O_ACCMODE) == O_RDONLY   ? "O_RDONLY"
                       : (flags & O_ACCMODE) == O_WRONLY ? "O_WRONLY"
                                                         : "O_RDWR";
    if ((flags & O_CREAT) != 0) {
        text += "|O_CREAT";
    }
    if ((flags & O_EXCL) != 0) {
        text += "|O_EXCL";
    }
    if ((flags & O_NONBLOCK) != 0) {
        text += "|O_NONBLOCK";
    }
    return text;
}

std::string octal(mode_t mode)
{
    char text[16];
    static_cast<void>(std::snprintf(text, sizeof(text), "0%o", mode));
    return text;
}

// The device's own libraries; the C library and the sanitizers open others.
bool isDeviceLibrary(const char* path)
{
    return path != nullptr && (std::strncmp(path, "/usr/fwupdate/", 14) == 0 ||
                               std::strcmp(path, "/usr/lib/libkUEPUser.so") == 0);
}

/// A sanitizer starts a thread of its own with the first that the program starts, which shall not
/// be counted.
void letSanitizerStartItsThread()
{
#ifdef QUILLON_SANITIZED
    static std::once_flag once;
    std::call_once(once, [] { std::thread([] {}).join(); });
#endif
}

}  // namespace

void recordCalls(std::initializer_list<const char*> names)
{
    letSanitizerStartItsThread();
    for (const char* name : names) {
        states[functionOf(name)].isRecorded = true;
    }
}

void failCall(const char* name, int error, int times, int skip)
{
    letSanitizerStartItsThread();
    State& state = states[functionOf(name)];
    state.error = error;
    state.skips = skip;
    state.failures = times;
}

void openInstead(const std::string& path, const std::string& standIn)
{
    const std::lock_guard<std::mutex> lock(standInMutex);
    standIns()[path] = standIn;
    hasStandIns = true;
}

void setFastSleep(bool fast)
{
    fastSleep = fast;
}

void setMonotonicTime(const timespec& now)
{
    ownNanoseconds = std::int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
    ownClock = true;
}

void useRealClock()
{
    ownClock = false;
}

void setDetachJoins(bool joins)
{
    detachJoins = joins;
}

void beforeTimedWait(std::function<void()> function)
{
    delete beforeWait.exchange(new std::function<void()>(std::move(function)));
}

void awaitTimedWait()
{
    pthread_mutex_t* mutex = nullptr;
    while ((mutex = waitersMutex) == nullptr) {
        const timespec pause = {0, 1000000};
        nanosleep(&pause, nullptr);
    }
    // The wait lets go of its mutex only when it would see a signal.
    pthread_mutex_lock(mutex);
    pthread_mutex_unlock(mutex);
}

bool canFailAllocations()
{
#ifdef QUILLON_SANITIZED
    return false;
#else
    return true;
#endif
}

std::size_t failAllocation(std::size_t bytes)
{
    return failingAllocation.exchange(bytes);
}

}  // namespace quillon::fakes

using namespace quillon::fakes;

extern "C" {

int usleep(useconds_t microseconds)
{
    if (fails(kUsleep)) {
        return recorded(kUsleep, std::to_string(microseconds), -1);
    }
    recorded(kUsleep, std::to_string(microseconds), 0);
    return fastSleep ? 0 : next<decltype(usleep)>(kUsleep)(microseconds);
}

int access(const char* path, int mode) noexcept
{
    const int result = fails(kAccess) ? -1 : next<decltype(access)>(kAccess)(path, mode);
    if (!isRecorded(kAccess)) {
        return result;
    }
    return recorded(kAccess, quoted(path) + ", " + (mode == F_OK ? "F_OK" : std::to_string(mode)),
                    result);
}

int clock_gettime(clockid_t clock, struct timespec* time) noexcept
{
    if (clock != CLOCK_MONOTONIC) {
        return next<decltype(clock_gettime)>(kClockGettime)(clock, time);
    }
    if (fails(kClockGettime)) {
        return recorded(kClockGettime, "CLOCK_MONOTONIC", -1);
    }
    if (!ownClock) {
        const int result = next<decltype(clock_gettime)>(kClockGettime)(clock, time);
        return isRecorded(kClockGettime) ? recorded(kClockGettime, "CLOCK_MONOTONIC", result)
                                         : result;
    }
    const std::int64_t now = ownNanoseconds;
    *time = {static_cast<time_t>(now / 1000000000), static_cast<long>(now % 1000000000)};
    return recorded(kClockGettime, "CLOCK_MONOTONIC", 0);
}

#ifdef QUILLON_SECOND_NAMES
// The C++ library's clocks go on calling it under its first name.
struct ShortTimespec
{
    std::int32_t tv_sec;
    std::int32_t tv_nsec;
};
int shortClockGettime(clockid_t clock, ShortTimespec* time) noexcept __asm__("clock_gettime");
int shortClockGettime(clockid_t clock, ShortTimespec* time) noexcept
{
    timespec now = {};
    const int result = clock_gettime(clock, &now);
    *time = {static_cast<std::int32_t>(now.tv_sec), static_cast<std::int32_t>(now.tv_nsec)};
    return result;
}
#endif

int setxattr(const char* path, const char* name, const void* value, size_t size, int flags) noexcept
{
    const int result =
        fails(kSetxattr) ? -1 : next<decltype(setxattr)>(kSetxattr)(path, name, value, size, flags);
    return recorded(kSetxattr,
                    quoted(path) + ", " + quoted(name) + ", " +
                        quoted(static_cast<const char*>(value), size) + ", " +
                        std::to_string(size) + ", " + std::to_string(flags),
                    result);
}

mqd_t mq_open(const char* name, int flags, ...) noexcept
{
    mode_t mode = 0;
    struct mq_attr* attributes = nullptr;
    std::string arguments = quoted(name) + ", " + openFlags(flags);
    if ((flags & O_CREAT) != 0) {
        va_list list;
        va_start(list, flags);
        mode = va_arg(list, mode_t);
        attributes = va_arg(list, struct mq_attr*);
        va_end(list);
        arguments += ", " + octal(mode);
        if (attributes != nullptr) {
            arguments += ", flags " + std::to_string(attributes->mq_flags) + " maxmsg " +
                         std::to_string(attributes->mq_maxmsg) + " msgsize " +
                         std::to_string(attributes->mq_msgsize) + " curmsgs " +
                         std::to_string(attributes->mq_curmsgs);
        }
    }
    const mqd_t queue =
        fails(kMqOpen) ? -1 : next<decltype(mq_open)>(kMqOpen)(name, flags, mode, attributes);
    if (queue != -1) {
        rememberName(handleOf(queue), name);
    }
    recordOpening(kMqOpen, arguments, queue != -1);
    return queue;
}

int mq_close(mqd_t queue) noexcept
{
    const int result = fails(kMqClose) ? -1 : next<decltype(mq_close)>(kMqClose)(queue);
    return recorded(kMqClose, quoted(nameOf(handleOf(queue)).c_str()), result);
}

int mq_unlink(const char* name) noexcept
{
    const int result = fails(kMqUnlink) ? -1 : next<decltype(mq_unlink)>(kMqUnlink)(name);
    return recorded(kMqUnlink, quoted(name), result);
}

int mq_send(mqd_t queue, const char* data, size_t size, unsigned int priority)
{
    const int result =
        fails(kMqSend) ? -1 : next<decltype(mq_send)>(kMqSend)(queue, data, size, priority);
    return recorded(kMqSend,
                    quoted(nameOf(handleOf(queue)).c_str()) + ", " + std::to_string(size) + ", " +
                        std::to_string(priority),
                    result);
}

ssize_t mq_receive(mqd_t queue, char* data, size_t size, unsigned int* priority)
{
    const ssize_t result =
        fails(kMqReceive) ? -1
                          : next<decltype(mq_receive)>(kMqReceive)(queue, data, size, priority);
    return recorded(kMqReceive,
                    quoted(nameOf(handleOf(queue)).c_str()) + ", " + std::to_string(size) + ", " +
                        (priority == nullptr ? "null" : "priority"),
                    result);
}

sem_t* sem_open(const char* name, int flags, ...) noexcept
{
    mode_t mode = 0;
    unsigned int value = 0;
    const std::string text = openFlags(flags & ~O_ACCMODE);  // "O_RDONLY|..."; no access mode here
    std::string arguments = quoted(name) + ", " + (text.size() > 9 ? text.substr(9) : "0");
    if ((flags & O_CREAT) != 0) {
        va_list list;
        va_start(list, flags);
        mode = va_arg(list, mode_t);
        value = va_arg(list, unsigned int);
        va_end(list);
        arguments = quoted(name) + ", O_CREAT, " + octal(mode) + ", " + std::to_string(value);
    }
    sem_t* semaphore =
        fails(kSemOpen) ? SEM_FAILED : next<decltype(sem_open)>(kSemOpen)(name, flags, mode, value);
    if (semaphore != SEM_FAILED) {
        rememberName(handleOf(semaphore), name);
    }
    recordOpening(kSemOpen, arguments, semaphore != SEM_FAILED);
    return semaphore;
}

int sem_close(sem_t* semaphore) noexcept
{
    const int result = fails(kSemClose) ? -1 : next<decltype(sem_close)>(kSemClose)(semaphore);
    return recorded(kSemClose, quoted(nameOf(handleOf(semaphore)).c_str()), result);
}

int sem_post(sem_t* semaphore) noexcept
{
    const int result = fails(kSemPost) ? -1 : next<decltype(sem_post)>(kSemPost)(semaphore);
    if (!isRecorded(kSemPost)) {
        return result;
    }
    return recorded(kSemPost, quoted(nameOf(handleOf(semaphore)).c_str()), result);
}

int sem_wait(sem_t* semaphore)
{
    const int result = fails(kSemWait) ? -1 : next<decltype(sem_wait)>(kSemWait)(semaphore);
    if (!isRecorded(kSemWait)) {
        return result;
    }
    return recorded(kSemWait, quoted(nameOf(handleOf(semaphore)).c_str()), result);
}

FILE* fopen64(const char* path, const char* mode)
{
    FILE* file = nullptr;
    if (!fails(kFopen)) {
        const auto open = next<decltype(fopen64)>(kFopen);
        file = hasStandIns ? open(standInFor(path).c_str(), mode) : open(path, mode);
    }
    if (isRecorded(kFopen)) {
        recordOpening(kFopen, quoted(path) + ", " + quoted(mode), file != nullptr);
    }
    return file;
}

#ifndef __USE_FILE_OFFSET64
// Where every file is opened for 64-bit sizes anyway this is a name of the one above.
FILE* fopen(const char* path, const char* mode)
{
    return fopen64(path, mode);
}
#endif

DIR* opendir(const char* path)
{
    DIR* directory = nullptr;
    if (!fails(kOpendir)) {
        const auto open = next<decltype(opendir)>(kOpendir);
        directory = hasStandIns ? open(standInFor(path).c_str()) : open(path);
    }
    if (isRecorded(kOpendir)) {
        recordOpening(kOpendir, quoted(path), directory != nullptr);
    }
    return directory;
}

int mkdir(const char* path, mode_t mode) noexcept
{
    const int result = fails(kMkdir) ? -1 : next<decltype(mkdir)>(kMkdir)(path, mode);
    return isRecorded(kMkdir) ? recorded(kMkdir, quoted(path) + ", " + octal(mode), result)
                              : result;
}

int remove(const char* path) noexcept
{
    const int result = fails(kRemove) ? -1 : next<decltype(remove)>(kRemove)(path);
    return recorded(kRemove, quoted(path), result);
}

int stat(const char* path, struct stat* status) noexcept
{
    const int result =
        fails(kStat) ? -1 : next<int(const char*, struct stat*)>(kStat)(path, status);
    return isRecorded(kStat) ? recorded(kStat, quoted(path), result) : result;
}

int lstat(const char* path, struct stat* status) noexcept
{
    const int result =
        fails(kLstat) ? -1 : next<int(const char*, struct stat*)>(kLstat)(path, status);
    return isRecorded(kLstat) ? recorded(kLstat, quoted(path), result) : result;
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                   void* argument) noexcept
{
    const int result = fails(kPthreadCreate) ? errno
                                             : next<decltype(pthread_create)>(kPthreadCreate)(
                                                   thread, attributes, function, argument);
    return isRecorded(kPthreadCreate) ? recorded(kPthreadCreate, "", result) : result;
}

int pthread_detach(pthread_t thread) noexcept
{
    int result = 0;
    if (detachJoins) {
        // Not through a sanitizer, which is told of a detach.
        using Join = int(pthread_t, void**);
        result = reinterpret_cast<Join*>(dlsym(RTLD_NEXT, "pthread_join"))(thread, nullptr);
    } else {
        result = next<decltype(pthread_detach)>(kPthreadDetach)(thread);
    }
    return isRecorded(kPthreadDetach) ? recorded(kPthreadDetach, "", result) : result;
}

int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                           const struct timespec* deadline)
{
    int result = 0;
    if (fails(kPthreadCondClockwait)) {
        result = errno;
    } else {
        const std::unique_ptr<std::function<void()>> before(beforeWait.exchange(nullptr));
        if (before) {
            (*before)();
        }
        waitersMutex = mutex;
        result = next<decltype(pthread_cond_clockwait)>(kPthreadCondClockwait)(condition, mutex,
                                                                               clock, deadline);
        waitersMutex = nullptr;
    }
    if (!isRecorded(kPthreadCondClockwait)) {
        return result;
    }
    char text[64];
    static_cast<void>(std::snprintf(text, sizeof(text), "%s, %lld.%09ld",
                                    clock == CLOCK_MONOTONIC ? "CLOCK_MONOTONIC" : "another clock",
                                    static_cast<long long>(deadline->tv_sec), deadline->tv_nsec));
    return recorded(kPthreadCondClockwait, text, result);
}

int prctl(int option, ...) noexcept
{
    va_list list;
    va_start(list, option);
    const unsigned long second = va_arg(list, unsigned long);
    const unsigned long third = va_arg(list, unsigned long);
    const unsigned long fourth = va_arg(list, unsigned long);
    const unsigned long fifth = va_arg(list, unsigned long);
    va_end(list);
    const int result =
        fails(kPrctl) ? -1 : next<decltype(prctl)>(kPrctl)(option, second, third, fourth, fifth);
    if (!isRecorded(kPrctl)) {
        return result;
    }
    const std::string argument = option == PR_SET_NAME
                                     ? quoted(reinterpret_cast<const char*>(second))
                                     : std::to_string(second);
    return recorded(
        kPrctl, (option == PR_SET_NAME ? "PR_SET_NAME" : std::to_string(option)) + ", " + argument,
        result);
}

char* realpath(const char* path, char* resolved) noexcept
{
    char* result = fails(kRealpath) ? nullptr : next<decltype(realpath)>(kRealpath)(path, resolved);
    if (isRecorded(kRealpath)) {
        recordCall("realpath(" + quoted(path) + ") = " + quoted(result));
    }
    return result;
}

// What a hardened caller calls, who knows how large its buffer is.
char* __realpath_chk(const char* path, char* resolved, size_t) noexcept
{
    return realpath(path, resolved);
}

guint g_timeout_add(guint interval, GSourceFunc function, gpointer data)
{
    if (isRecorded(kTimeoutAdd)) {
        recordCall("g_timeout_add(" + std::to_string(interval) + ")");
    }
    return next<decltype(g_timeout_add)>(kTimeoutAdd)(interval, function, data);
}

void* dlopen(const char* path, int mode) noexcept
{
    void* handle = next<decltype(dlopen)>(kDlopen)(path, mode);
    if (isRecorded(kDlopen) && isDeviceLibrary(path)) {
        recordOpening(kDlopen,
                      quoted(path) + ", " +
                          (mode == RTLD_NOW    ? "RTLD_NOW"
                           : mode == RTLD_LAZY ? "RTLD_LAZY"
                                               : std::to_string(mode)),
                      handle != nullptr);
    }
    if (handle != nullptr && isDeviceLibrary(path)) {
        rememberName(handleOf(handle), path);
    }
    return handle;
}

int dlclose(void* handle) noexcept
{
    // The header promises that nobody passes null; a test wants to see it.
    const volatile std::uintptr_t value = handleOf(handle);
    std::string name = "null";
    if (isRecorded(kDlclose) && value != 0) {
        name = quoted(nameOf(value).c_str());
    }
    const int result = next<decltype(dlclose)>(kDlclose)(handle);
    if (name != quoted(kUnknown)) {
        recorded(kDlclose, name, result);
    }
    return result;
}

/// A descriptor that cannot be read stands in for the file meanwhile, so that the stream itself
/// notes the failure.
static size_t failToRead(void* data, size_t size, size_t count, FILE* file)
{
    const int error = errno;
    const int kept = dup(fileno(file));
    const int directory = open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    dup2(directory, fileno(file));
    const size_t result = next<decltype(fread)>(kFread)(data, size, count, file);
    dup2(kept, fileno(file));
    close(kept);
    close(directory);
    errno = error;
    return result;
}

size_t fread(void* data, size_t size, size_t count, FILE* file)
{
    if (fails(kFread)) {
        return failToRead(data, size, count, file);
    }
    const size_t result = next<decltype(fread)>(kFread)(data, size, count, file);
    return isRecorded(kFread)
               ? recorded(kFread, std::to_string(size) + ", " + std::to_string(count), result)
               : result;
}

int EVP_CipherInit(EVP_CIPHER_CTX* context, const EVP_CIPHER* type, const unsigned char* key,
                   const unsigned char* iv, int enc)
{
    const int result = next<decltype(EVP_CipherInit)>(kCipherInit)(context, type, key, iv, enc);
    return isRecorded(kCipherInit) ? recorded(kCipherInit, std::to_string(enc), result) : result;
}

int EVP_CipherUpdate(EVP_CIPHER_CTX* context, unsigned char* out, int* outSize,
                     const unsigned char* in, int size)
{
    const int result =
        next<decltype(EVP_CipherUpdate)>(kCipherUpdate)(context, out, outSize, in, size);
    return isRecorded(kCipherUpdate) ? recorded(kCipherUpdate, std::to_string(size), result)
                                     : result;
}

#ifndef QUILLON_SANITIZED

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);

void* malloc(size_t size)
{
    std::size_t failing = failingAllocation.load(std::memory_order_relaxed);
    if (failing != 0 && size == failing && failingAllocation.compare_exchange_strong(failing, 0)) {
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_malloc(size);
}

void* calloc(size_t count, size_t size)
{
    std::size_t failing = failingAllocation.load(std::memory_order_relaxed);
    if (failing != 0 && count * size == failing &&
        failingAllocation.compare_exchange_strong(failing, 0)) {
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_calloc(count, size);
}

#endif

}  // extern "C"
