// A module without a component, for those who try a control layer, a client or a stick: copy it to
// NAME.so and put NAME.json beside it, which says how the component behaves. It is read anew
// whenever it matters; what it does not say is as in a component without faults:
//
//     {
//       "identifier": "NAMEemp",
//       "version": "1.0",          before the first update
//       "claims": "9.9",           told instead of the version that runs: the module lies
//       "need": 0,                 told of every version that is offered; -1: the check fails
//       "speed": 1048576,          bytes in a second; 0: as fast as the disk takes them
//       "seconds": 2.5,            instead of a speed: for the update, whatever its bytes
//       "expectedTime": 5,         seconds
//       "failAtByte": 1000,        the update fails there (EIO), and the old version goes on
//       "result": 5,               the update fails so after its last byte (EIO)
//       "hangAtByte": 1000,        the update never returns
//       "crashAtByte": 1000        the process of the module ends
//     }
//
// A file that is no JSON object makes each answer fail (EINVAL). What is installed lies in
// /var/lib/quillon/examples/NAME/.

#include <dlfcn.h>
#include <json/json.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "fw-update-plugin.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kPiece = 4096;

std::mutex guard;     // of offered
std::mutex flashing;  // held while an update runs
std::string offered;
std::atomic<unsigned int> percent{0};

int failWith(int error)
{
    errno = error;
    return -1;
}

fs::path ownPath()
{
    Dl_info info = {};
    return dladdr(reinterpret_cast<const void*>(&ownPath), &info) != 0 ? info.dli_fname : "";
}

std::string ownName()
{
    return ownPath().stem();
}

fs::path stateDirectory()
{
    return fs::path("/var/lib/quillon/examples") / ownName();
}

/// @throws Json::Exception when it is no JSON object
Json::Value settings()
{
    Json::Value found(Json::objectValue);
    std::ifstream file(ownPath().replace_extension(".json"));
    if (file.is_open()) {
        file >> found;
    }
    if (!found.isObject()) {
        throw Json::RuntimeError("no object");
    }
    return found;
}

/// Runs an entry's work; nothing may be thrown into the service.
template <typename Work>
int guarded(Work work) noexcept
{
    try {
        return work();
    } catch (const Json::Exception&) {
        return failWith(EINVAL);
    } catch (const fs::filesystem_error& error) {
        return failWith(error.code().value());
    } catch (...) {
        return failWith(ENOMEM);
    }
}

void copyText(char* to, const std::string& text)
{
    to[text.copy(to, FW_PLUGIN_TEXT_SIZE - 1)] = '\0';
}

std::string runningVersion()
{
    std::string version;
    std::getline(std::ifstream(stateDirectory() / "version"), version);
    return version.empty() ? settings().get("version", "1.0").asString() : version;
}

bool writeFile(const fs::path& path, const std::string& text)
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    return file.write(text.data(), static_cast<std::streamsize>(text.size())).flush().good();
}

/// Takes the component's time for the bytes, and meets its faults on the way.
/// @return false with errno when it fails
bool passBytes(std::size_t length)
{
    const Json::Value set = settings();
    const double speed = set.isMember("seconds")
                             ? static_cast<double>(length) / set["seconds"].asDouble()
                             : set.get("speed", 1048576).asDouble();
    const Clock::time_point start = Clock::now();
    const auto isReached = [&](const char* fault, std::size_t done) {
        return set.isMember(fault) && done >= set[fault].asUInt64();
    };
    for (std::size_t done = 0;; done += std::min(kPiece, length - done)) {
        while (isReached("hangAtByte", done)) {
            pause();
        }
        if (isReached("crashAtByte", done)) {
            std::abort();
        }
        if (isReached("failAtByte", done)) {
            errno = EIO;
            return false;
        }
        percent = length == 0 ? 0 : static_cast<unsigned int>(done * 99 / length);
        if (speed > 0) {
            std::this_thread::sleep_until(
                start + std::chrono::duration_cast<Clock::duration>(
                            std::chrono::duration<double>(static_cast<double>(done) / speed)));
        }
        if (done == length) {
            return true;
        }
    }
}

int install(const std::string& payload)
{
    const std::unique_lock<std::mutex> only(flashing, std::try_to_lock);
    if (!only) {
        return failWith(EBUSY);
    }
    std::string version;
    {
        const std::lock_guard<std::mutex> lock(guard);
        version = std::exchange(offered, "");
    }
    if (version.empty() || payload.empty()) {
        return failWith(EINVAL);
    }
    if (!passBytes(payload.size())) {
        return -1;
    }
    if (const int result = settings().get("result", 0).asInt(); result != 0) {
        errno = EIO;
        return result;
    }
    fs::create_directories(stateDirectory());
    // The version last, so that after a power cut in between the update is asked for again.
    if (!writeFile(stateDirectory() / "firmware.bin", payload) ||
        !writeFile(stateDirectory() / "version", version)) {
        return failWith(errno != 0 ? errno : EIO);
    }
    percent = 100;
    return 0;
}

}  // namespace

int setContext(const char* /*libraryName*/, CallerTypes /*caller*/, char* /*argument*/)
{
    return 0;
}

int getEMPID(char* buffer)
{
    return guarded([&] {
        copyText(buffer, settings().get("identifier", ownName() + "emp").asString());
        return 0;
    });
}

int getActiveVersion(char* buffer)
{
    return guarded([&] {
        const Json::Value set = settings();
        copyText(buffer, set.isMember("claims") ? set["claims"].asString() : runningVersion());
        return 0;
    });
}

int checkVersion(const char* version, int* need)
{
    return guarded([&] {
        const std::string text = version;
        const bool isText =
            std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c <= '~'; });
        if (text.empty() || text.size() >= FW_PLUGIN_TEXT_SIZE || !isText) {
            return failWith(EINVAL);
        }
        const int answer = settings().get("need", text != runningVersion() ? 1 : 0).asInt();
        if (answer < 0) {
            return failWith(EINVAL);
        }
        *need = answer;
        const std::lock_guard<std::mutex> lock(guard);
        offered = text;
        return 0;
    });
}

int doUpdate_decryption(const unsigned char* data, int length)
{
    return guarded([&] {
        return install(
            {reinterpret_cast<const char*>(data), static_cast<std::size_t>(std::max(length, 0))});
    });
}

int doUpdate(const char* path, unsigned long /*value*/)
{
    return guarded([&] {
        if (!fs::is_regular_file(path)) {
            return failWith(ENOENT);
        }
        std::ifstream file(path, std::ios::binary);
        const std::string payload{std::istreambuf_iterator<char>(file),
                                  std::istreambuf_iterator<char>()};
        return file.bad() ? failWith(EIO) : install(payload);
    });
}

int getExpectedTime(int* seconds)
{
    return guarded([&] {
        *seconds = settings().get("expectedTime", 5).asInt();
        return 0;
    });
}

int getUpdateProgress(unsigned int* progress)
{
    *progress = percent;
    return 0;
}

int allUpdateDone()
{
    return 0;
}
