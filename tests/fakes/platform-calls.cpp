// Every platform call, recorded and answered as the test has programmed it.

#include <dlfcn.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fakes/recorder.h"
#include "platform/app-binary-manager.h"
#include "platform/events.h"
#include "platform/log.h"
#include "platform/power.h"
#include "platform/privileged.h"
#include "platform/secure-storage.h"
#include "platform/system-info.h"
#include "platform/trace.h"
#include "platform/watchdog.h"

namespace quillon::fakes {
namespace {

constexpr int kSystemBuffer = 2;
constexpr const char* kTag = "FWUPDATE";
constexpr const char* kPrefix = "%s: %s(%d) > ";
constexpr unsigned char kMadeByInit = 0x51;  // marks a credential that ss_init_credential filled

std::string formatted(const char* format, va_list arguments)
{
    va_list again;
    va_copy(again, arguments);
    const int size = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    std::string text(size < 0 ? 0 : static_cast<std::size_t>(size), '\0');
    static_cast<void>(std::vsnprintf(text.data(), text.size() + 1, format, arguments));
    return text;
}

void recordMismatch(const std::string& what)
{
    Entry entry;
    entry.kind = Kind::Mismatch;
    entry.text = what;
    record(std::move(entry));
}

void recordLog(int buffer, int priority, const char* tag, const char* format, va_list arguments)
{
    Entry entry;
    entry.kind = Kind::Log;
    entry.priority = priority;
    if (buffer != kSystemBuffer || std::strcmp(tag, kTag) != 0) {
        recordMismatch("a log line with buffer " + std::to_string(buffer) + " and tag " + tag);
    }
    if (std::strncmp(format, kPrefix, std::strlen(kPrefix)) != 0) {
        recordMismatch(std::string("a log line without the prefix: ") + format);
        return;
    }
    va_list behindPrefix;
    va_copy(behindPrefix, arguments);
    entry.file = va_arg(behindPrefix, const char*);
    entry.function = va_arg(behindPrefix, const char*);
    entry.line = va_arg(behindPrefix, int);
    entry.text = formatted(format + std::strlen(kPrefix), behindPrefix);
    va_end(behindPrefix);
    if (entry.file.find('/') != std::string::npos || entry.file.find('.') == std::string::npos) {
        recordMismatch("a source file that is not a base name with extension: " + entry.file);
    }
    record(std::move(entry));
}

void recordTrace(int priority, const char* tag, const char* file, const char* function, int line,
                 const char* format, va_list arguments)
{
    Entry entry;
    entry.kind = Kind::Trace;
    entry.priority = priority;
    entry.file = file;
    entry.function = function;
    entry.line = line;
    entry.text = formatted(format, arguments);
    if (std::strcmp(tag, kTag) != 0) {
        entry.text += std::string(" (with tag ") + tag + ")";
    }
    record(std::move(entry));
}

// The platform may change errno, and the text that the dynamic linker last had for this thread, so
// this one does: who needs them must have kept them.
void spoilThreadState()
{
    // The linker's text names the program's path, so its size may be the one that is to fail.
    const std::size_t failing = failAllocation(0);
    static_cast<void>(dlsym(RTLD_DEFAULT, "a name that no library has"));
    static_cast<void>(dlerror());
    // Once read, the text and its holder are given back. Otherwise the end of the thread gives them
    // back, and for a worker that is just ending then they look like a leak.
    static_cast<void>(dlerror());
    failAllocation(failing);
    errno = EBADMSG;
}

int recorded(const std::string& call, int result)
{
    recordCall(call + " = " + std::to_string(result));
    return result;
}

// A buffer that holds a text and, behind it, nothing but zeros.
bool isZeroFilled(const char* buffer, int size)
{
    const char* end = buffer + std::max(size, 0);
    const char* behindText = std::find(buffer, end, '\0');
    return behindText != end && std::all_of(behindText, end, [](char c) { return c == '\0'; });
}

void checkRequest(const char* name, const char* request, int size)
{
    if (!isZeroFilled(request, size)) {
        recordMismatch(std::string(name) + " with a buffer that is not filled up with zeros");
    }
}

void checkResult(const char* name, const int* result)
{
    if (*result != 0) {
        recordMismatch(std::string(name) + " with a result that is not 0 before the call");
    }
}

int privileged(const char* name, const char* request, int size, int reserved, int* result,
               const std::pair<int, int>& answer)
{
    *result = answer.second;
    return recorded(std::string(name) + "(" + quoted(request) + ", " + std::to_string(size) + ", " +
                        std::to_string(reserved) + ", " + std::to_string(answer.second) + ")",
                    answer.first);
}

}  // namespace

Platform::Platform() : ssRead([this](const char* item) { return items.count(item) != 0 ? 0 : 5; })
{
}

Platform& platform()
{
    static auto* instance = new Platform;  // never destroyed, as the timeline
    return *instance;
}

int answerVerifier(void* reserved, const char* path, const char* caller)
{
    const int result = platform().verifyFile.take(path);
    recordPlugin(std::string("verifyFile(") + (reserved == nullptr ? "null" : "not null") + ", " +
                 quoted(path) + ", " + quoted(caller) + ") = " + std::to_string(result));
    return result;
}

int answerDigestVerifier(void* reserved, const unsigned char* sha256, const unsigned char* trailer,
                         int trailerSize, const char* path, const char* caller)
{
    const int result = platform().verifyDigest.take(Bytes(sha256, sha256 + 32),
                                                    Bytes(trailer, trailer + trailerSize));
    recordPlugin(std::string("verifyDigest(") + (reserved == nullptr ? "null" : "not null") + ", " +
                 quoted(path) + ", " + quoted(caller) + ") = " + std::to_string(result));
    return result;
}

}  // namespace quillon::fakes

using namespace quillon::fakes;

int __dlog_print(int buffer, int priority, const char* tag, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    recordLog(buffer, priority, tag, format, arguments);
    va_end(arguments);
    spoilThreadState();
    return 0;
}

int trace_logger_write(int priority, const char* tag, const char* file, const char* function,
                       int line, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    recordTrace(priority, tag, file, function, line, format, arguments);
    va_end(arguments);
    spoilThreadState();
    return 0;
}

int system_info_get_value_string(int key, char** value)
{
    const int result = platform().systemInfo.take(key);
    if (result == 0) {
        *value = strdup(platform().softwareVersion.c_str());
    }
    return recorded("system_info_get_value_string(" + std::to_string(key) + ")", result);
}

int device_power_lock_state(int type, int timeout_ms)
{
    return recorded(
        "device_power_lock_state(" + std::to_string(type) + ", " + std::to_string(timeout_ms) + ")",
        platform().powerLock.take(type, timeout_ms));
}

int device_power_unlock_state(int type)
{
    return recorded("device_power_unlock_state(" + std::to_string(type) + ")",
                    platform().powerUnlock.take(type));
}

int ss_init_credential(ss_credential* credential, uint32_t word0, uint32_t word1, uint32_t word2,
                       uint32_t word3, uint32_t word4, int flag0, int flag1)
{
    *credential = {{word0, word1, word2, word3, word4}, {flag0, flag1}, {kMadeByInit}};
    std::string call = "ss_init_credential(";
    for (const uint32_t word : credential->words) {
        call += std::to_string(word) + ", ";
    }
    return recorded(call + std::to_string(flag0) + ", " + std::to_string(flag1) + ")", 0);
}

int ss_read(unsigned char** data, size_t* size, int reserved0, int reserved1, const char* item,
            ss_credential* credential, unsigned int mode)
{
    const int result = platform().ssRead.take(item);
    if (result == 0) {
        const Bytes& bytes = platform().items[item];
        // One byte more, so that an empty item has an address as well.
        *data = static_cast<unsigned char*>(std::malloc(bytes.size() + 1));
        std::copy(bytes.begin(), bytes.end(), *data);
        *size = bytes.size();
    }
    const bool known = credential != nullptr && credential->reserved[0] == kMadeByInit;
    return recorded("ss_read(" + std::to_string(reserved0) + ", " + std::to_string(reserved1) +
                        ", " + quoted(item) + ", " + (known ? "credential" : "no credential") +
                        ", " + std::to_string(mode) + ")",
                    result);
}

void ss_free_buffer(unsigned char* data)
{
    std::free(data);
    recordCall(data == nullptr ? "ss_free_buffer(null)" : "ss_free_buffer(data)");
}

int sdp_install_from_file(const char* path, int kind, int reserved)
{
    return recorded("sdp_install_from_file(" + quoted(path) + ", " + std::to_string(kind) + ", " +
                        std::to_string(reserved) + ")",
                    platform().sdpInstall.take(path));
}

int LwipcEventDone(const char* name)
{
    return recorded("LwipcEventDone(" + quoted(name) + ")", platform().lwipcEventDone.take(name));
}

int smart_deadlock_register_watchdog_service(int seconds)
{
    return recorded("smart_deadlock_register_watchdog_service(" + std::to_string(seconds) + ")",
                    platform().watchdogRegister.take(seconds));
}

int smart_deadlock_watchdog_notify(void)
{
    return recorded("smart_deadlock_watchdog_notify()", platform().watchdogNotify.take());
}

int smart_deadlock_unregister_watchdog_service(void)
{
    return recorded("smart_deadlock_unregister_watchdog_service()",
                    platform().watchdogUnregister.take());
}

int PS_Mount(const char* request, int size, int reserved, int* result)
{
    checkRequest("PS_Mount", request, size);
    checkResult("PS_Mount", result);
    return privileged("PS_Mount", request, size, reserved, result,
                      platform().psMount.take(request));
}

int PS_Mknod(const char* request, int size, int reserved, int* result)
{
    checkRequest("PS_Mknod", request, size);
    checkResult("PS_Mknod", result);
    return privileged("PS_Mknod", request, size, reserved, result,
                      platform().psMknod.take(request));
}

int PS_Umount(const char* directory, int length, int reserved, int* result)
{
    checkResult("PS_Umount", result);
    return privileged("PS_Umount", directory, length, reserved, result,
                      platform().psUmount.take(directory));
}

namespace appbinaryManager {

// The callback is the test's to call: a download ends when the test says so.
bool ABM_DownloadAppBinary(void (*callback)(const std::string& identifier, int status,
                                            void* user_data),
                           void* user_data, const std::string& identifier)
{
    const bool accepted = platform().download.take(identifier);
    recordCall(std::string("ABM_DownloadAppBinary(") + (callback == nullptr ? "null" : "callback") +
               ", " + (user_data == nullptr ? "null" : "data") + ", " + quoted(identifier.c_str()) +
               ") = " + (accepted ? "true" : "false"));
    return accepted;
}

}  // namespace appbinaryManager
