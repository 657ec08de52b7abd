// What a module answers. Nothing here installs anything.

#include <json/json.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <sstream>

#include "base/alphanumeric.h"
#include "src/support/checksum.h"
#include "tools/quillon-module/clause-functions.h"
#include "tools/quillon-module/module.h"

namespace quillon::kit {

namespace {

namespace fs = std::filesystem;

constexpr int kLongestExpected = 86400;
constexpr std::size_t kLongestVersionOfInfo = 63;
constexpr std::size_t kOverlong = 4000;
constexpr std::chrono::seconds kQuick(1);
constexpr int kTries = 3;

bool isPrintable(const std::string& text)
{
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

/// What another module says of itself, asked in a process of its own.
/// @return empty when that process ends early
std::string identifierOf(const std::string& file)
{
    constexpr std::size_t kSize = FW_PLUGIN_TEXT_SIZE;
    void* const memory =
        mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        notChecked(std::string("no memory: ") + std::strerror(errno));
    }
    const auto unmap = [](char* text) { munmap(text, kSize); };
    const std::unique_ptr<char, decltype(unmap)> text(static_cast<char*>(memory), unmap);
    const pid_t child = fork();
    if (child == 0) {
        void* const library = dlopen(file.c_str(), RTLD_NOW);
        auto* const entry = reinterpret_cast<decltype(::getEMPID)*>(
            library != nullptr ? dlsym(library, "getEMPID") : nullptr);
        char buffer[kSize * 2] = {};
        if (entry != nullptr) {
            entry(buffer);
        }
        std::memcpy(text.get(), buffer, kSize - 1);
        _exit(0);
    }
    if (child == -1) {
        notChecked(std::string("no process: ") + std::strerror(errno));
    }
    waitpid(child, nullptr, 0);
    return text.get();
}

Json::Value informationOf(const std::string& path)
{
    std::istringstream text(contentOf(path));
    Json::Value info;
    std::string trouble;
    require(
        Json::parseFromStream(Json::CharReaderBuilder(), text, &info, &trouble) && info.isObject(),
        path + " is no JSON object");
    require(info["version"].isString(), path + " has no text \"version\"");
    return info;
}

void requireRefusal(Module& module, const std::string& version, const std::string& what)
{
    require(!module.offer(version).isWanted(),
            what + " counts as a version that is to be installed: return another result than 0");
}

}  // namespace

std::string holdContext(Module& module)
{
    constexpr CallerTypes kCallers[] = {CALLER_STICK,     CALLER_ARGUMENT, CALLER_SERVICE,
                                        CALLER_USB_IMAGE, CALLER_SYSTEM,   CALLER_SHARED,
                                        CALLER_SYSTEM_2,  CALLER_SYSTEM_3};
    const GuardedBytes none = GuardedBytes::copyOf("");
    const GuardedBytes usb = GuardedBytes::copyOf("USB");
    for (const CallerTypes caller : kCallers) {
        for (char* const argument : {none.data(), usb.data(), static_cast<char*>(nullptr)}) {
            const int result = module.setContext(caller, argument);
            require(result == 0,
                    "setContext returns " + std::to_string(result) + " for the caller " +
                        std::to_string(caller) + " with " +
                        (argument == nullptr ? "a null argument"
                                             : "the argument \"" + std::string(argument) + '"'));
        }
    }
    return "";
}

std::string holdIdentifier(Module& module)
{
    std::string identifier = module.identifier();
    require(!identifier.empty(), "it is empty");
    require(isAlphanumeric(identifier),
            "it has other characters than ASCII letters and digits: " + identifier);
    const std::size_t emp = identifier.find("emp");
    require(emp != std::string::npos, "it does not contain \"emp\" in lower case: " + identifier);
    require(identifier.find("emp", emp + 1) == std::string::npos,
            "it contains \"emp\" more than once: " + identifier);
    require(identifier.size() > 3, "nothing is left of it without \"emp\"");
    return identifier;
}

std::string holdVersion(Module& module)
{
    std::string version = module.version();
    require(!version.empty(), "it is empty");
    require(isPrintable(version), "it has characters that cannot be printed: " + version);
    return version;
}

std::string holdStickEntries(Module& module)
{
    const bool installs = module.has("doUpdate_decryption");
    const bool expects = module.has("getExpectedTime");
    if (!installs && !expects) {
        notOffered("it is updated from packages only");
    }
    require(installs,
            "it has getExpectedTime, but not doUpdate_decryption: every update from a "
            "stick fails");
    require(expects,
            "it has doUpdate_decryption, but not getExpectedTime: it is never updated "
            "from a stick");
    return "";
}

std::string holdUnique(Module& module)
{
    const std::vector<std::string>& others = module.subject().others;
    if (others.empty()) {
        notChecked("give the other modules of the device as well");
    }
    const std::string own = firmwareNameOf(module.identifier());
    for (const std::string& file : others) {
        module.tell("getEMPID of another module");
        require(firmwareNameOf(identifierOf(file)) != own,
                fs::path(file).filename().string() + " has the firmware name " + own + " as well");
    }
    return "";
}

std::string holdImageName(Module& module)
{
    if (module.subject().image.empty()) {
        notChecked("give its image: --image FILE");
    }
    const std::string expected = firmwareNameOf(module.identifier()) + ".bin";
    const std::string name = fs::path(module.subject().image).filename();
    require(name == expected, "the service looks for " + expected + ", not for " + name);
    return "";
}

std::string holdInfo(Module& module)
{
    const std::string& path = module.subject().info;
    const Json::Value info = informationOf(path);
    const std::string version = info["version"].asString();
    require(!version.empty() && version.size() <= kLongestVersionOfInfo && isPrintable(version),
            path + ": \"version\" must be 1 to 63 printable characters");
    require(info["expected_time"].isUInt(), path + ": \"expected_time\" must be whole seconds");
    require(info["crc"].isUInt(), path + ": \"crc\" must be a number of 32 bits");
    if (!module.subject().image.empty()) {
        const std::string image = contentOf(module.subject().image);
        const std::uint32_t crc =
            imageChecksum(0, reinterpret_cast<const unsigned char*>(image.data()), image.size());
        require(info["crc"].asUInt() == crc,
                path + ": \"crc\" must be " + std::to_string(crc) + ", the CRC-32 of the image");
    }
    return "";
}

std::string holdInfoVersion(Module& module)
{
    const std::string version = informationOf(module.subject().info)["version"].asString();
    const Answer answer = module.offer(version, CALLER_SERVICE);
    require(answer.result == 0,
            "checkVersion returns " + std::to_string(answer.result) + " for " + version);
    return version + (answer.need == 1 ? " needs an update" : " needs no update");
}

std::string holdNeed(Module& module)
{
    const std::string version = versionAfter(module.version());
    const Answer answer = module.offer(version);
    require(answer.result == 0,
            "checkVersion returns " + std::to_string(answer.result) + " for " + version);
    return "";
}

std::string holdExpectedTime(Module& module)
{
    int seconds = -1;
    const int result = module.getExpectedTime(seconds);
    require(result == 0, "getExpectedTime returns " + std::to_string(result));
    require(seconds >= 1 && seconds <= kLongestExpected,
            "it expects " + std::to_string(seconds) + " seconds");
    return std::to_string(seconds) + " s";
}

std::string holdSameVersion(Module& module)
{
    const std::string running = module.version();
    const Answer answer = module.offer(running);
    require(!answer.isWanted(),
            "it runs " + running + " and wants it again: the update would be repeated for ever");
    return "";
}

std::string holdQuickQueries(Module& module)
{
    const std::string running = module.version();
    int seconds = 0;
    unsigned int percent = 0;
    const std::pair<const char*, std::function<void()>> queries[] = {
        {"getEMPID", [&] { module.identifier(); }},
        {"getActiveVersion", [&] { module.version(); }},
        {"checkVersion", [&] { module.offer(running); }},
        {"getExpectedTime", [&] { module.getExpectedTime(seconds); }},
        {"getUpdateProgress", [&] { module.getUpdateProgress(percent); }},
    };
    for (const auto& [entry, ask] : queries) {
        if (!module.has(entry)) {
            continue;
        }
        // Once may be a machine that is busy.
        for (int i = 1; ask(), module.duration() > kQuick; ++i) {
            require(i < kTries,
                    std::string(entry) + " takes " +
                        std::to_string(module.duration() / std::chrono::milliseconds(1)) +
                        " ms: read the component once and keep the answer");
        }
    }
    return "";
}

std::string holdNoise(Module& module)
{
    for (const char* noise : {"\x8f\x02\xe1\x1b\x9d\x7f\xc4", "1.\x01\x02", "2.0\n", "\xff\xfe"}) {
        requireRefusal(module, noise, "noise");
    }
    return "";
}

std::string holdEmptyVersion(Module& module)
{
    requireRefusal(module, "", "an empty text");
    return "";
}

std::string holdOverlongVersion(Module& module)
{
    for (const std::size_t length : {std::size_t{FW_PLUGIN_TEXT_SIZE}, kOverlong}) {
        requireRefusal(module, std::string(length, '9'),
                       "a text of " + std::to_string(length) + " characters");
    }
    static_cast<void>(module.version());
    return "";
}

std::string holdArgumentPointer(Module& module)
{
    const std::string before = module.version();
    const GuardedBytes argument = GuardedBytes::copyOf("argument of a caller");
    argument.forbid(false);
    module.setContext(CALLER_ARGUMENT, argument.data());
    const GuardedBytes version = GuardedBytes::copyOf(before);
    static_cast<void>(module.check(version.data()));
    argument.forbid(true);
    unsigned int percent = 0;
    int seconds = 0;
    if (module.has("getUpdateProgress")) {
        module.getUpdateProgress(percent);
    }
    if (module.has("getExpectedTime")) {
        module.getExpectedTime(seconds);
    }
    if (module.has("allUpdateDone")) {
        module.allUpdateDone();
    }
    static_cast<void>(module.version());
    return "";
}

std::string holdSameAnswers(Module& module)
{
    const std::string version = module.version();
    require(module.version(CALLER_USB_IMAGE) == version && module.version() == version,
            "it tells another version when it is asked again");
    if (module.subject().isProcess()) {
        return "";
    }
    require(module.identifier() == module.identifier(), "it tells another identifier");
    const std::string next = versionAfter(version);
    const Answer first = module.offer(next);
    module.offer(version);
    const Answer again = module.offer(next);
    require(first.result == again.result && first.need == again.need,
            "it judges " + next + " another way when it is asked again");
    return "";
}

std::string holdOlderVersion(Module& module)
{
    const Answer answer = module.offer("0");
    if (answer.result != 0) {
        return "it refuses 0";
    }
    return answer.need == 1 ? "it would install 0: an old image stays validly signed"
                            : "it leaves 0 alone";
}

std::string holdEndOfRun(Module& module)
{
    if (!module.has("allUpdateDone")) {
        notOffered("it has no entry allUpdateDone");
    }
    const int result = module.allUpdateDone();
    require(result == 0, "allUpdateDone returns " + std::to_string(result));
    return "";
}

}  // namespace quillon::kit
