#include "tools/quillon-module/module.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <exception>
#include <fstream>
#include <iterator>
#include <utility>

#include "tools/shared/deadline-child.h"
#include "tools/shared/outside-text.h"

namespace quillon::kit {

namespace {

constexpr char kUntouched = 'Z';
constexpr std::size_t kBehind = 256;  // bytes that show a write behind a text
constexpr int kNoAnswer = -559038737;
constexpr int kTimesExpected = 3;
constexpr int kLongestExpected = 86400;

std::size_t pageSize()
{
    return static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

void copyText(char* to, std::size_t size, const std::string& text)
{
    to[text.copy(to, size - 1)] = '\0';
}

}  // namespace

GuardedBytes::GuardedBytes(std::size_t size, char fill) : size_(size)
{
    const std::size_t page = pageSize();
    const std::size_t usable = (std::max<std::size_t>(size, 1) + page - 1) / page * page;
    whole_ = usable + page;
    void* const pages =
        mmap(nullptr, whole_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED) {
        notChecked(std::string("no memory: ") + std::strerror(errno));
    }
    pages_ = static_cast<char*>(pages);
    mprotect(pages_ + usable, page, PROT_NONE);
    data_ = pages_ + usable - size;
    std::memset(data_, fill, size);
}

GuardedBytes GuardedBytes::copyOf(const std::string& text, bool isTerminated)
{
    GuardedBytes bytes(text.size() + (isTerminated ? 1 : 0));
    text.copy(bytes.data_, text.size());
    return bytes;
}

GuardedBytes::GuardedBytes(GuardedBytes&& other) noexcept
    : size_(other.size_),
      whole_(other.whole_),
      pages_(std::exchange(other.pages_, nullptr)),
      data_(other.data_)
{
}

GuardedBytes::~GuardedBytes()
{
    if (pages_ != nullptr) {
        munmap(pages_, whole_);
    }
}

void GuardedBytes::forbid(bool gone) const
{
    mprotect(pages_, whole_ - pageSize(), gone ? PROT_NONE : PROT_READ);
}

std::string Module::load(const std::string& path)
{
    tell("its loading");
    name_ = subject_.name();
    const pid_t self = getpid();
    // It is declared not to throw, so the compiler would leave the handlers below out.
    void* (*const volatile open)(const char*, int) = dlopen;
    void* handle = nullptr;
    try {
        handle = open(path.c_str(), RTLD_NOW);
    } catch (const std::exception& error) {
        endForkedSince(self);
        broken(std::string("it throws an exception while it is loaded: ") + error.what());
    } catch (...) {
        endForkedSince(self);
        broken("it throws an exception while it is loaded");
    }
    endForkedSince(self);
    if (handle == nullptr) {
        return dlerror();
    }
    library_ = SharedLibrary(handle, LibraryCloser());
    return "";
}

/// A process that the module has forked must not judge anything.
void Module::endForkedSince(pid_t self)
{
    if (getpid() != self) {
        telling_.childCameOut = true;
        _exit(127);
    }
}

void* Module::library()
{
    if (library_ == nullptr) {
        const std::string trouble = load(subject_.file);
        require(trouble.empty(), "it does not load: " + trouble);
    }
    return library_.get();
}

void Module::unload()
{
    tell("its unloading");
    library_.reset();
}

void* Module::address(const char* entry)
{
    return dlsym(library(), entry);
}

void Module::tell(const char* moment, std::chrono::nanoseconds more)
{
    copyText(telling_.moment, sizeof(telling_.moment), moment);
    telling_.deadline =
        monotonicNow() + std::chrono::nanoseconds(subject_.longest).count() + more.count();
}

template <typename Signature, typename... Arguments>
int Module::call(const char* entry, Arguments... arguments)
{
    auto* const function = reinterpret_cast<Signature*>(address(entry));
    if (function == nullptr) {
        notChecked(std::string("it has no entry ") + entry);
    }
    const pid_t self = getpid();
    const std::int64_t begin = monotonicNow();
    int result = 0;
    errno = 0;
    try {
        result = function(arguments...);
    } catch (const std::exception& error) {
        endForkedSince(self);
        broken(std::string(entry) + " has thrown an exception: " + error.what());
    } catch (...) {
        endForkedSince(self);
        broken(std::string(entry) + " has thrown an exception");
    }
    const int error = errno;
    endForkedSince(self);
    duration_ = std::chrono::nanoseconds(monotonicNow() - begin);
    tell(entry);
    errno = error;
    return result;
}

int Module::setContext(CallerTypes caller, char* argument)
{
    tell("setContext");
    return call<decltype(::setContext)>("setContext", name_.c_str(), caller, argument);
}

std::string Module::textOf(const char* entry)
{
    tell(entry);
    const GuardedBytes buffer(FW_PLUGIN_TEXT_SIZE + kBehind, kUntouched);
    std::memset(buffer.data(), 0, FW_PLUGIN_TEXT_SIZE);
    const int result = call<decltype(::getEMPID)>(entry, buffer.data());
    const char* const behind = buffer.data() + FW_PLUGIN_TEXT_SIZE;
    require(std::all_of(behind, behind + kBehind, [](char c) { return c == kUntouched; }),
            std::string(entry) + " writes behind the 128 bytes that it may write");
    const std::size_t length = strnlen(buffer.data(), FW_PLUGIN_TEXT_SIZE);
    require(length < FW_PLUGIN_TEXT_SIZE,
            std::string(entry) + " writes no terminator within 128 bytes");
    require(result == 0 || std::strcmp(entry, "getEMPID") == 0,
            std::string(entry) + " returns " + std::to_string(result) + ", not 0");
    return {buffer.data(), length};
}

std::string Module::version(CallerTypes caller)
{
    setContext(caller, none_);
    return textOf("getActiveVersion");
}

std::string Module::identifier()
{
    return textOf("getEMPID");
}

Answer Module::check(const char* version)
{
    tell("checkVersion");
    Answer answer;
    answer.need = kNoAnswer;
    answer.result = call<decltype(::checkVersion)>("checkVersion", version, &answer.need);
    require(answer.result != 0 || answer.need == 0 || answer.need == 1,
            answer.need == kNoAnswer ? "checkVersion returns 0 and leaves need unwritten"
                                     : "checkVersion answers a need of " +
                                           std::to_string(answer.need) + ", neither 0 nor 1");
    return answer;
}

Answer Module::offer(const std::string& version, CallerTypes caller)
{
    setContext(caller, none_);
    const GuardedBytes text = GuardedBytes::copyOf(version);
    text.forbid(false);
    return check(text.data());
}

int Module::getExpectedTime(int& seconds)
{
    tell("getExpectedTime");
    return call<decltype(::getExpectedTime)>("getExpectedTime", &seconds);
}

int Module::getUpdateProgress(unsigned int& percent)
{
    tell("getUpdateProgress");
    return call<decltype(::getUpdateProgress)>("getUpdateProgress", &percent);
}

int Module::allUpdateDone()
{
    tell("allUpdateDone");
    return call<decltype(::allUpdateDone)>("allUpdateDone");
}

namespace {

/// An update may take what the module expects, and more.
std::chrono::nanoseconds timeForUpdate(Module& module)
{
    int seconds = 0;
    if (module.has("getExpectedTime")) {
        module.getExpectedTime(seconds);
    }
    return std::chrono::seconds(std::clamp(seconds, 0, kLongestExpected)) * kTimesExpected;
}

}  // namespace

int Module::doUpdate(const char* path, unsigned long value)
{
    tell("doUpdate", timeForUpdate(*this));
    return call<decltype(::doUpdate)>("doUpdate", path, value);
}

int Module::doUpdateFromStick(const unsigned char* data, int length)
{
    tell("doUpdate_decryption", timeForUpdate(*this));
    return call<decltype(::doUpdate_decryption)>("doUpdate_decryption", data, length);
}

std::string firmwareNameOf(std::string identifier)
{
    const std::size_t emp = identifier.find("emp");
    return emp == std::string::npos ? identifier : identifier.erase(emp, 3);
}

std::string versionAfter(const std::string& version)
{
    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    const auto end = std::find_if(version.rbegin(), version.rend(), isDigit).base();
    auto begin = end;
    while (begin != version.begin() && isDigit(*(begin - 1))) {
        --begin;
    }
    if (begin == end) {
        return version + "1";
    }
    std::string number(begin, end);
    auto digit = number.rbegin();
    for (; digit != number.rend() && *digit == '9'; ++digit) {
        *digit = '0';
    }
    if (digit == number.rend()) {
        number.insert(0, "1");
    } else {
        ++*digit;
    }
    return std::string(version.begin(), begin) + number + std::string(end, version.end());
}

std::string contentOf(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::string content{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    require(file.is_open() && !file.bad(), path + " cannot be read");
    return content;
}

}  // namespace quillon::kit
