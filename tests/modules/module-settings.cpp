#include "modules/module-settings.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>

namespace quillon::fakes {

// There only when the recording platform is part of the process.
__attribute__((weak)) const ModuleBehaviour* behaviourOf(const std::string& name);
__attribute__((weak)) void recordPlugin(const std::string& text);
__attribute__((weak)) void recordPayload(const std::string& name, const unsigned char* data,
                                         int length);

}  // namespace quillon::fakes

namespace quillon::test_module {
namespace {

using fakes::Effect;
using fakes::EntryBehaviour;
using fakes::ModuleBehaviour;

std::atomic<bool> g_isUpdated{false};

int toInt(const std::string& text)
{
    return static_cast<int>(std::strtol(text.c_str(), nullptr, 0));
}

Effect toEffect(const std::string& text)
{
    if (text == "throw") {
        return Effect::Throw;
    }
    if (text == "throw-unknown") {
        return Effect::ThrowUnknown;
    }
    if (text == "hang") {
        return Effect::Hang;
    }
    if (text == "exit") {
        return Effect::Exit;
    }
    if (text == "child-exits") {
        return Effect::ChildExits;
    }
    if (text == "child-returns") {
        return Effect::ChildReturns;
    }
    if (text == "child-throws") {
        return Effect::ChildThrows;
    }
    if (text == "child-stays") {
        return Effect::ChildStays;
    }
    return text == "crash" ? Effect::Crash : Effect::None;
}

void applyEntrySetting(EntryBehaviour& entry, const std::string& key, const std::string& value)
{
    if (key == "result") {
        entry.result = toInt(value);
    } else if (key == "delay_ms") {
        entry.delayMs = toInt(value);
    } else if (key == "errno") {
        entry.error = toInt(value);
    } else if (key == "effect") {
        entry.effect = toEffect(value);
    }
}

void applySetting(ModuleBehaviour& behaviour, const std::string& key, const std::string& value)
{
    const std::size_t dot = key.find('.');
    if (dot != std::string::npos) {
        applyEntrySetting(behaviour.entries[key.substr(0, dot)], key.substr(dot + 1), value);
    } else if (key == "empid") {
        behaviour.empid = value;
    } else if (key == "version") {
        behaviour.activeVersion = value;
    } else if (key == "need") {
        behaviour.need = toInt(value);
    } else if (key == "seconds") {
        behaviour.expectedSeconds = toInt(value);
    } else if (key == "progress") {
        behaviour.progress = static_cast<unsigned int>(toInt(value));
    } else if (key == "capture") {
        behaviour.capturePath = value;
    }
}

ModuleBehaviour behaviourFromFile(const std::string& name)
{
    ModuleBehaviour behaviour;
    behaviour.empid = name + "emp";
    behaviour.activeVersion = g_isUpdated ? "2.0" : "1.0";
    std::ifstream file("/etc/quillon-test/" + name + ".conf");
    std::string line;
    while (std::getline(file, line)) {
        const std::size_t equals = line.find('=');
        if (equals != std::string::npos) {
            applySetting(behaviour, line.substr(0, equals), line.substr(equals + 1));
        }
    }
    return behaviour;
}

// In one piece, so that the lines of two threads do not mix.
void appendToFile(const std::string& path, const std::string& text)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    if (fd != -1) {
        static_cast<void>(!write(fd, text.data(), text.size()));
        close(fd);
    }
}

}  // namespace

std::string ownName()
{
    Dl_info info = {};
    if (dladdr(reinterpret_cast<const void*>(&ownName), &info) == 0) {
        return "unknown";
    }
    std::string name = info.dli_fname;
    name.erase(0, name.rfind('/') + 1);
    return name.substr(0, name.rfind(".so"));
}

ModuleBehaviour ownBehaviour()
{
    if (fakes::behaviourOf != nullptr) {
        return *fakes::behaviourOf(ownName());
    }
    return behaviourFromFile(ownName());
}

void becomeUpdated()
{
    g_isUpdated = true;
}

void tell(const std::string& call)
{
    const std::string text = ownName() + "." + call;
    if (fakes::recordPlugin != nullptr) {
        fakes::recordPlugin(text);
    } else {
        appendToFile("/tmp/quillon-test-" + ownName() + ".log", text + "\n");
    }
}

bool forkChild()
{
    const pid_t child = fork();
    if (child == 0) {
        return true;
    }
    int status = 0;
    waitpid(child, &status, 0);
    tell("child(" + std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -1) + ")");
    return false;
}

void tellPayload(const unsigned char* data, int length)
{
    if (fakes::recordPayload != nullptr) {
        fakes::recordPayload(ownName(), data, length);
    }
}

}  // namespace quillon::test_module
