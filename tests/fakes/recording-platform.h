/// A platform for tests: it supplies every platform call, does next to nothing, and keeps one
/// ordered timeline of the calls, the log lines and what the test plug-ins were asked.
///
/// Link quillon-recording-platform; what a test expects of the timeline is said with
/// "fakes/timeline.h". Everything here may be called from any thread.
///
/// It also stands in front of some functions of the C library and hands each call on to the real
/// one. Those enter the timeline only after recordCalls(), and fail only after failCall().
#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>
#include <deque>
#include <functional>
#include <initializer_list>
#include <iosfwd>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "fakes/module-behaviour.h"

namespace quillon::fakes {

using Bytes = std::vector<unsigned char>;

/// The priorities of log lines.
enum LogPriority : int { DEBUG = 3, INFO = 4, ERROR = 6 };

enum class Kind {
    Log,      ///< a line of the platform's log; text: the message without its prefix
    Trace,    ///< the same message in the trace; only in wholeTimeline()
    Call,     ///< a call of the platform or the C library; text: `name(arguments) = result`
    Plugin,   ///< a call of a test plug-in or the test verifier; text: `alpha.getEMPID()`
    Mismatch  ///< a log line that breaks the rules, or without its twin, or a request to the
              ///< privileged service that does; text: what is wrong
};

struct Entry
{
    Kind kind = Kind::Call;
    int priority = 0;  ///< of a log line
    std::string file;  ///< of a log line: base name of the source file
    std::string function;
    int line = 0;
    std::string text;
    unsigned int thread = 0;  ///< number of the thread, counted from 1 as they first appear
};

/// One line, for failure texts.
std::ostream& operator<<(std::ostream& out, const Entry& entry);

/// Everything so far, in order, without the traces: each log line must be followed, on its thread,
/// by a trace that says the same; where it is not, a Mismatch stands behind the line.
std::vector<Entry> timeline();

/// Everything so far, the traces included.
std::vector<Entry> wholeTimeline();

/// Every Mismatch of the timeline, one a line; empty when all is well.
std::string mismatches();

/// Forgets the timeline. What was programmed stays.
void clear();

/// Waits until an entry with that text is in the timeline.
/// @return false when the time has passed without it
bool waitForText(const std::string& text, std::chrono::milliseconds limit);

/// Adds a remark of the test itself, as a Call.
void note(const std::string& text);

/// @name Functions of the C library (and of libdl, GLib and libcrypto)
/// By name: access, clock_gettime, dlclose, dlopen, EVP_CipherInit, EVP_CipherUpdate, fopen64,
/// fread, g_timeout_add, lstat, mkdir, mq_close, mq_open, mq_receive, mq_send, mq_unlink, opendir,
/// prctl, pthread_cond_clockwait, pthread_create, pthread_detach, realpath, remove, sem_close,
/// sem_open, sem_post, sem_wait, setxattr, stat, usleep. Another name raises std::invalid_argument.
/// Of clock_gettime only CLOCK_MONOTONIC counts, of dlopen and dlclose only the plug-ins and the
/// verifier; fopen64 is fopen too, and what the C++ library's file streams open with;
/// pthread_cond_clockwait is what its steady_clock's timed waits wait with.
/// @{

/// From now on calls of these enter the timeline.
void recordCalls(std::initializer_list<const char*> names);

/// Lets calls fail with the function's failure value and errno, without making them. Not for
/// dlopen, dlclose, g_timeout_add, pthread_detach and EVP_*. A pthread_cond_clockwait that
/// fails with 0 is a wake-up that nobody sent.
/// @param skip   so many calls are still made before
/// @param times  so many fail
void failCall(const char* name, int error, int times = 1, int skip = 0);

/// Lets fopen64 and opendir open another file or directory when they are asked for this path: a
/// mount table or a list of devices of the test. The timeline keeps the path that was asked for.
void openInstead(const std::string& path, const std::string& standIn);

/// Lets usleep return at once.
void setFastSleep(bool fast);

/// Puts a clock of the test in the place of CLOCK_MONOTONIC. The C++ library's steady_clock sees
/// it as well, so no timed wait may run meanwhile.
void setMonotonicTime(const timespec& now);
void useRealClock();

/// Lets pthread_detach return only when the thread has ended.
void setDetachJoins(bool joins);

/// Has the next pthread_cond_clockwait call a function before it waits, while it still holds the
/// mutex. A sanitizer may not see what that function locks.
void beforeTimedWait(std::function<void()> function);

/// Waits until another thread is in pthread_cond_clockwait and would see a signal. That wait must
/// not end of itself meanwhile.
void awaitTimedWait();

/// Whether failAllocation can work; a sanitizer brings an allocator of its own.
bool canFailAllocations();

/// Lets the next malloc or calloc of exactly that many bytes fail; 0 lets none.
/// @return what was set before, and has not failed yet.
std::size_t failAllocation(std::size_t bytes);
/// @}

/// What a platform call answers: queued answers first, one a call, then the lasting one.
template <typename Signature>
class Answer;

template <typename Result, typename... Arguments>
class Answer<Result(Arguments...)>
{
public:
    using Function = std::function<Result(Arguments...)>;

    explicit Answer(Function lasting) : lasting_(std::move(lasting)) {}
    explicit Answer(Result lasting)
    {
        lasting_ = [lasting](Arguments...) { return lasting; };
    }

    /// Every call from now on, once the queue is empty.
    void always(Result result)
    {
        always([result](Arguments...) { return result; });
    }
    void always(Function function)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        lasting_ = std::move(function);
    }

    /// The next calls, one each.
    void then(std::initializer_list<Result> results)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        for (const Result& result : results) {
            queued_.push_back([result](Arguments...) { return result; });
        }
    }
    void thenCall(Function function)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        queued_.push_back(std::move(function));
    }

    /// Behind the platform calls only.
    Result take(Arguments... arguments)
    {
        Function function;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            function = lasting_;
            if (!queued_.empty()) {
                function = std::move(queued_.front());
                queued_.pop_front();
            }
        }
        return function(arguments...);
    }

private:
    std::mutex mutex_;
    std::deque<Function> queued_;
    Function lasting_;
};

/// The answers of the platform. All succeed until a test says otherwise. A function may set errno.
struct Platform
{
    /// What system_info_get_value_string(128) hands out when it answers 0.
    std::string softwareVersion = "QUILLON-1.0";
    /// The secure storage: ss_read answers 5 for an item that is not in it.
    std::map<std::string, Bytes> items;

    Answer<int(int key)> systemInfo{0};
    Answer<int(const char* item)> ssRead;
    Answer<int(const char* path)> sdpInstall{0};
    Answer<int(const char* event)> lwipcEventDone{0};
    Answer<int(int seconds)> watchdogRegister{0};
    Answer<int()> watchdogNotify{0};
    Answer<int()> watchdogUnregister{0};
    Answer<int(int type, int timeoutMs)> powerLock{0};
    Answer<int(int type)> powerUnlock{0};
    /// For these three the first is the return value, the second *result, which must be 0 before
    /// the call. Behind the text of a mount's and a node's request its buffer must be zeros.
    Answer<std::pair<int, int>(const char* request)> psMount{std::pair<int, int>{0, 0}};
    Answer<std::pair<int, int>(const char* request)> psMknod{std::pair<int, int>{0, 0}};
    Answer<std::pair<int, int>(const char* directory)> psUmount{std::pair<int, int>{0, 0}};
    Answer<bool(const std::string& identifier)> download{true};

    /// The test verifier; 0 means not signed.
    Answer<int(const char* path)> verifyFile{1};
    /// Its second entry, where it has one, with the digest and the trailer that it is asked about.
    Answer<int(const Bytes& sha256, const Bytes& trailer)> verifyDigest{1};

    Platform();
};

Platform& platform();

/// Sets how the test plug-in behaves that is installed as NAME.so.
void setBehaviour(const std::string& name, ModuleBehaviour behaviour);

/// The payloads that a test plug-in was given, in order.
std::vector<Bytes> payloadsOf(const std::string& name);

/// @name Behind the test plug-ins and the test verifier only
/// @{
const ModuleBehaviour* behaviourOf(const std::string& name);
void recordPlugin(const std::string& text);
void recordPayload(const std::string& name, const unsigned char* data, int length);
int answerVerifier(void* reserved, const char* path, const char* caller);
int answerDigestVerifier(void* reserved, const unsigned char* sha256, const unsigned char* trailer,
                         int trailerSize, const char* path, const char* caller);
/// @}

}  // namespace quillon::fakes
