#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

#include "base/handles.h"
#include "include/fw-update-plugin.h"
#include "tools/quillon-module/clause.h"

namespace quillon::kit {

/// The nine entries in the order in which the service binds them, the five required ones first.
constexpr std::array<const char*, 9> kEntries = {
    "setContext",          "getEMPID",        "getActiveVersion",
    "checkVersion",        "doUpdate",        "allUpdateDone",
    "doUpdate_decryption", "getExpectedTime", "getUpdateProgress"};
constexpr std::size_t kRequiredEntries = 5;

/// What the process in which a clause is judged tells the one that waits for it, in memory that
/// both have: a module may close every file.
struct Telling
{
    std::atomic<std::int64_t> deadline;  ///< a monotonicNow()
    std::atomic<Verdict> verdict;        ///< kNone while the clause is being judged
    std::atomic<bool> childCameOut;      ///< a process that an entry has forked returned from it
    char moment[64];                     ///< the entry that is called
    char text[2048];                     ///< of the judgement
};

/// Bytes that end where memory ends: what is read or written behind them is a crash.
class GuardedBytes
{
public:
    explicit GuardedBytes(std::size_t size, char fill = '\0');
    /// A text with its terminator, or bytes.
    static GuardedBytes copyOf(const std::string& text, bool isTerminated = true);
    ~GuardedBytes();
    GuardedBytes(GuardedBytes&& other) noexcept;
    GuardedBytes(const GuardedBytes&) = delete;
    GuardedBytes& operator=(const GuardedBytes&) = delete;

    char* data() const { return data_; }
    std::size_t size() const { return size_; }
    /// From now on a write, or with `gone` any use, is a crash.
    void forbid(bool gone) const;

private:
    std::size_t size_;
    std::size_t whole_ = 0;
    char* pages_ = nullptr;
    char* data_ = nullptr;
};

/// What checkVersion has answered.
struct Answer
{
    int result = 0;
    int need = 0;
    /// Whether the service would install what was offered.
    bool isWanted() const { return result == 0 && need == 1; }
};

/// A module in this process. It is loaded at the first use. A call that throws, or that a forked
/// child comes out of, is a broken clause; where a call is at work is told beforehand.
class Module
{
public:
    Module(const Subject& subject, Telling& telling) : subject_(subject), telling_(telling) {}

    const Subject& subject() const { return subject_; }

    /// The library's handle; broken when it does not load.
    void* library();
    /// @return dlerror's text; empty when it loads
    std::string load(const std::string& path);
    void unload();
    bool has(const char* entry) { return address(entry) != nullptr; }
    /// @return null when the module has no such entry
    void* address(const char* entry);

    int setContext(CallerTypes caller, char* argument);
    int getExpectedTime(int& seconds);
    int getUpdateProgress(unsigned int& percent);
    int allUpdateDone();
    int doUpdate(const char* path, unsigned long value);
    int doUpdateFromStick(const unsigned char* data, int length);

    /// As the service asks, with the context first. Broken when the answer is none, or too long.
    std::string version(CallerTypes caller = CALLER_SERVICE);
    std::string identifier();
    /// As the service asks before an update from a stick. Broken for a need that is no answer.
    Answer offer(const std::string& version, CallerTypes caller = CALLER_USB_IMAGE);
    /// The same without the context, and with a text of the caller's.
    Answer check(const char* version);

    /// How long the latest call took.
    std::chrono::nanoseconds duration() const { return duration_; }
    /// Tells where this process is, and gives it the time for one answer from now on.
    void tell(const char* moment, std::chrono::nanoseconds more = {});

private:
    template <typename Signature, typename... Arguments>
    int call(const char* entry, Arguments... arguments);
    std::string textOf(const char* entry);
    void endForkedSince(pid_t self);

    const Subject& subject_;
    Telling& telling_;
    SharedLibrary library_;
    std::chrono::nanoseconds duration_{};
    std::string name_;   // outlives the library, as the contract says
    char none_[1] = {};  // an empty argument, which outlives it as well
};

/// @return the identifier without its first "emp"
std::string firmwareNameOf(std::string identifier);

/// @return a version that any sensible order puts behind the other: its last number plus one
std::string versionAfter(const std::string& version);

/// All of a file. Broken when it cannot be read.
std::string contentOf(const std::string& path);

}  // namespace quillon::kit
