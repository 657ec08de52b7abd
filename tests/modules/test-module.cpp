// A firmware module for tests, whose every answer the test decides. The entries that a variant
// lacks are left out with -DWITHOUT_<entry>.

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>

#include "fw-update-plugin.h"
#include "modules/module-settings.h"

#define ENTRY __attribute__((visibility("default")))

namespace {

using quillon::fakes::Effect;
using quillon::fakes::EntryBehaviour;
using quillon::fakes::ModuleBehaviour;
using quillon::test_module::forkChild;
using quillon::test_module::ownBehaviour;
using quillon::test_module::tell;

std::string quoted(const char* text)
{
    return text == nullptr ? "null" : "\"" + std::string(text) + "\"";
}

// The way out of every entry.
int finish(const ModuleBehaviour& behaviour, const char* name)
{
    const auto found = behaviour.entries.find(name);
    if (found == behaviour.entries.end()) {
        return 0;
    }
    const EntryBehaviour& entry = found->second;
    if (entry.delayMs > 0) {
        const timespec pause = {entry.delayMs / 1000, (entry.delayMs % 1000) * 1000000L};
        nanosleep(&pause, nullptr);
    }
    switch (entry.effect) {
        case Effect::Throw:
            throw std::runtime_error(name);
        case Effect::ThrowUnknown:
            throw 1;
        case Effect::Hang:
            for (;;) {
                pause();
            }
        case Effect::Crash:
            std::abort();
        case Effect::Exit:
            std::exit(0);
        case Effect::ChildExits: {
            const pid_t child = fork();
            if (child == 0) {
                std::exit(0);
            }
            waitpid(child, nullptr, 0);
            break;
        }
        case Effect::ChildReturns:
            forkChild();
            break;
        case Effect::ChildThrows:
            if (forkChild()) {
                throw std::runtime_error(name);
            }
            break;
        case Effect::ChildStays:
            if (fork() == 0) {
                while (access("/tmp/quillon-test-go", F_OK) != 0) {
                    usleep(1000);
                }
                _exit(0);
            }
            break;
        case Effect::None:
            break;
    }
    if (entry.error != 0) {
        errno = entry.error;
    }
    return entry.result;
}

void writeText(char* buffer, const std::string& text)
{
    const std::size_t size = std::min<std::size_t>(text.size(), FW_PLUGIN_TEXT_SIZE);
    std::copy_n(text.data(), size, buffer);
    if (size < FW_PLUGIN_TEXT_SIZE) {
        buffer[size] = '\0';
    }
}

// What was in the file before is replaced: the last payload counts.
[[maybe_unused]] void capture(const std::string& path, const unsigned char* data, int length)
{
    if (!path.empty()) {
        std::ofstream file(path, std::ios::binary | std::ios::trunc);
        file.write(reinterpret_cast<const char*>(data), length);
    }
}

}  // namespace

#ifndef WITHOUT_setContext
ENTRY int setContext(const char* libraryName, CallerTypes caller, char* argument)
{
    tell("setContext(" + quoted(libraryName) + ", " + std::to_string(caller) + ", " +
         quoted(argument) + ")");
    const ModuleBehaviour behaviour = ownBehaviour();
    if (behaviour.onSetContext) {
        behaviour.onSetContext(libraryName, argument);
    }
    return finish(behaviour, "setContext");
}
#endif

#ifndef WITHOUT_getEMPID
ENTRY int getEMPID(char* buffer)
{
    const bool isZero =
        std::all_of(buffer, buffer + FW_PLUGIN_TEXT_SIZE, [](char c) { return c == '\0'; });
    tell(isZero ? "getEMPID()" : "getEMPID(a buffer that is not zero)");
    const ModuleBehaviour behaviour = ownBehaviour();
    writeText(buffer, behaviour.empid);
    return finish(behaviour, "getEMPID");
}
#endif

#ifndef WITHOUT_getActiveVersion
ENTRY int getActiveVersion(char* buffer)
{
    tell("getActiveVersion()");
    const ModuleBehaviour behaviour = ownBehaviour();
    if (behaviour.activeVersion) {
        writeText(buffer, *behaviour.activeVersion);
    }
    return finish(behaviour, "getActiveVersion");
}
#endif

#ifndef WITHOUT_checkVersion
ENTRY int checkVersion(const char* version, int* need)
{
    tell("checkVersion(" + quoted(version) + ", need " + std::to_string(*need) + ")");
    const ModuleBehaviour behaviour = ownBehaviour();
    if (behaviour.onCheckVersion) {
        return behaviour.onCheckVersion(version, need);
    }
    *need = behaviour.need.value_or(*need);
    return finish(behaviour, "checkVersion");
}
#endif

#ifndef WITHOUT_doUpdate
ENTRY int doUpdate(const char* path, unsigned long value)
{
    tell("doUpdate(" + quoted(path) + ", " + std::to_string(value) + ")");
    const ModuleBehaviour behaviour = ownBehaviour();
    if (behaviour.onUpdate) {
        behaviour.onUpdate(path, value);
    }
    const int result = finish(behaviour, "doUpdate");
    if (result == 0) {
        quillon::test_module::becomeUpdated();
    }
    return result;
}
#endif

#ifndef WITHOUT_allUpdateDone
ENTRY int allUpdateDone(void)
{
    tell("allUpdateDone()");
    const ModuleBehaviour behaviour = ownBehaviour();
    if (behaviour.onAllUpdateDone) {
        behaviour.onAllUpdateDone();
    }
    return finish(behaviour, "allUpdateDone");
}
#endif

#ifndef WITHOUT_doUpdate_decryption
ENTRY int doUpdate_decryption(const unsigned char* data, int length)
{
    tell("doUpdate_decryption(" + std::to_string(length) + " bytes)");
    const ModuleBehaviour behaviour = ownBehaviour();
    if (length >= 0) {
        quillon::test_module::tellPayload(data, length);
        capture(behaviour.capturePath, data, length);
    }
    if (behaviour.onPayload) {
        behaviour.onPayload(data, length);
    }
    return finish(behaviour, "doUpdate_decryption");
}
#endif

#ifndef WITHOUT_getExpectedTime
ENTRY int getExpectedTime(int* seconds)
{
    tell("getExpectedTime(" + std::to_string(*seconds) + ")");
    const ModuleBehaviour behaviour = ownBehaviour();
    *seconds = behaviour.expectedSeconds.value_or(*seconds);
    return finish(behaviour, "getExpectedTime");
}
#endif

#ifndef WITHOUT_getUpdateProgress
ENTRY int getUpdateProgress(unsigned int* progress)
{
    tell("getUpdateProgress()");
    const ModuleBehaviour behaviour = ownBehaviour();
    *progress = behaviour.progress;
    return finish(behaviour, "getUpdateProgress");
}
#endif
