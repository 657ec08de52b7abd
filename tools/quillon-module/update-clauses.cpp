// What an update does. Each of these installs the image, with one version after the running one.

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "base/fd.h"
#include "src/support/checksum.h"
#include "tools/quillon-module/clause-functions.h"
#include "tools/quillon-module/module.h"

namespace quillon::kit {

namespace {

namespace fs = std::filesystem;

/// What the service adds to the expected time.
constexpr std::chrono::seconds kGrace(2);
constexpr unsigned int kWhole = 100;

struct Payload
{
    explicit Payload(Module& module) : content(contentOf(module.subject().image)) {}

    const unsigned char* data() const
    {
        return reinterpret_cast<const unsigned char*>(content.data());
    }
    int length() const { return static_cast<int>(content.size()); }

    std::string content;
};

/// @return the version that the module has taken for newer
std::string offerNext(Module& module, CallerTypes caller)
{
    std::string next = versionAfter(module.version());
    const Answer answer = module.offer(next, caller);
    require(answer.isWanted(), "checkVersion does not want " + next + ": returns " +
                                   std::to_string(answer.result) + " with need " +
                                   std::to_string(answer.need));
    return next;
}

int updateFromStick(Module& module)
{
    const Payload payload(module);
    return module.doUpdateFromStick(payload.data(), payload.length());
}

int updateFromPackage(Module& module)
{
    const Payload payload(module);
    const std::uint32_t crc = imageChecksum(0, payload.data(), payload.content.size());
    return module.doUpdate(module.subject().image.c_str(), crc);
}

/// By the way that the module has.
int update(Module& module)
{
    return module.has("doUpdate_decryption") ? updateFromStick(module) : updateFromPackage(module);
}

void requireSuccess(int result)
{
    const int error = errno;
    require(result == 0, "the update returns " + std::to_string(result) +
                             " (errno: " + std::strerror(error) + ")");
}

void requireRunning(Module& module, const std::string& offered)
{
    const std::string running = module.version();
    require(running == offered, "the update succeeds, but it runs " + running + ", not " + offered);
    require(!module.offer(offered).isWanted(),
            "it runs " + offered + " and wants it again: the update would be repeated for ever");
}

/// @param result, error  of an update that must have failed
void requireFailure(Module& module, int result, int error, const std::string& before)
{
    require(result != 0, "the update returns 0");
    require(error != 0, "the update fails without errno, which the service's log tells");
    const std::string after = module.version();
    require(after == before,
            "the update fails, but the version is " + after + " instead of " + before);
}

/// All that may be asked when an update is over.
void askAfterwards(Module& module)
{
    unsigned int percent = 0;
    if (module.has("getUpdateProgress")) {
        module.getUpdateProgress(percent);
    }
    if (module.has("allUpdateDone")) {
        module.allUpdateDone();
    }
    static_cast<void>(module.version());
}

}  // namespace

std::string holdStickUpdate(Module& module)
{
    const std::string next = offerNext(module, CALLER_USB_IMAGE);
    requireSuccess(updateFromStick(module));
    requireRunning(module, next);
    return "";
}

std::string holdPackageUpdate(Module& module)
{
    const std::string next = offerNext(module, CALLER_SERVICE);
    requireSuccess(updateFromPackage(module));
    requireRunning(module, next);
    return "";
}

std::string holdRemembered(Module& module)
{
    // Another process than this one, into which the library has not come yet.
    int pipes[2] = {};
    if (pipe(pipes) != 0) {
        notChecked(std::string("no pipe: ") + std::strerror(errno));
    }
    const UniqueFd reading(pipes[0]);
    UniqueFd writing(pipes[1]);
    module.tell("an update");  // the other process goes on telling
    const pid_t child = fork();
    if (child == 0) {
        std::string next;
        try {
            next = offerNext(module, CALLER_SERVICE);
            next = update(module) == 0 ? next : "";
        } catch (const Judgement&) {
            next.clear();
        }
        _exit(write(writing.get(), next.data(), next.size()) < 1 ? 1 : 0);
    }
    writing = UniqueFd();
    int status = 0;
    waitpid(child, &status, 0);
    char text[FW_PLUGIN_TEXT_SIZE * 2] = {};
    if (status != 0 || read(reading.get(), text, sizeof(text) - 1) < 1) {
        notChecked("no update succeeds");
    }
    const std::string running = module.version();
    require(running == text, "it was updated to " + std::string(text) + ", but runs " + running +
                                 " in another process");
    return "";
}

std::string holdHonestTime(Module& module)
{
    int expected = 0;
    module.getExpectedTime(expected);
    offerNext(module, CALLER_USB_IMAGE);
    requireSuccess(update(module));
    const auto took = module.duration();
    require(took <= std::chrono::seconds(expected) + kGrace,
            "it expects " + std::to_string(expected) + " s and takes " +
                std::to_string(took / std::chrono::milliseconds(1)) +
                " ms: a control layer takes the update for failed");
    return std::to_string(took / std::chrono::milliseconds(1)) + " ms";
}

std::string holdMissingFile(Module& module)
{
    const std::string before = module.version();
    const std::string directory = fs::path(module.subject().image).parent_path();
    for (const std::string& path : {directory + "/there-is-no-such-file.bin", directory}) {
        offerNext(module, CALLER_SERVICE);
        const int result = module.doUpdate(path.c_str(), 0);
        requireFailure(module, result, errno, before);
    }
    return "";
}

std::string holdEmptyPayload(Module& module)
{
    const std::string before = module.version();
    const std::string next = offerNext(module, CALLER_USB_IMAGE);
    const GuardedBytes nothing(0);
    const int result =
        module.doUpdateFromStick(reinterpret_cast<const unsigned char*>(nothing.data()), 0);
    if (result == 0) {
        requireRunning(module, next);
        return "it installs an empty payload";
    }
    requireFailure(module, result, errno, before);
    return "it refuses an empty payload";
}

std::string holdVersionPointer(Module& module)
{
    const std::string next = versionAfter(module.version());
    const GuardedBytes text = GuardedBytes::copyOf(next);
    if (!module.check(text.data()).isWanted()) {
        notChecked("it does not want " + next);
    }
    text.forbid(true);
    requireSuccess(updateFromStick(module));
    require(module.version() == next, "it runs " + module.version() + ", not " + next);
    return "";
}

std::string holdPayloadBounds(Module& module)
{
    offerNext(module, CALLER_USB_IMAGE);
    const Payload payload(module);
    const GuardedBytes bytes = GuardedBytes::copyOf(payload.content, false);
    bytes.forbid(false);
    requireSuccess(module.doUpdateFromStick(reinterpret_cast<const unsigned char*>(bytes.data()),
                                            payload.length()));
    return "";
}

std::string holdPayloadPointer(Module& module)
{
    offerNext(module, CALLER_USB_IMAGE);
    const Payload payload(module);
    const GuardedBytes bytes = GuardedBytes::copyOf(payload.content, false);
    requireSuccess(module.doUpdateFromStick(reinterpret_cast<const unsigned char*>(bytes.data()),
                                            payload.length()));
    bytes.forbid(true);
    askAfterwards(module);
    return "";
}

std::string holdPathPointer(Module& module)
{
    offerNext(module, CALLER_SERVICE);
    const Payload payload(module);
    const std::string image = fs::canonical(module.subject().image);
    const GuardedBytes path = GuardedBytes::copyOf(image);
    path.forbid(false);
    requireSuccess(
        module.doUpdate(path.data(), imageChecksum(0, payload.data(), payload.content.size())));
    path.forbid(true);
    for (const fs::directory_entry& file : fs::directory_iterator("/proc/self/fd")) {
        std::error_code ignored;
        require(fs::read_symlink(file.path(), ignored) != image,
                "the image is still open: its package cannot be unmounted");
    }
    askAfterwards(module);
    return "";
}

std::string holdQueriesMeanwhile(Module& module)
{
    const std::string next = offerNext(module, CALLER_USB_IMAGE);
    auto* const version =
        reinterpret_cast<decltype(::getActiveVersion)*>(module.address("getActiveVersion"));
    auto* const progress =
        reinterpret_cast<decltype(::getUpdateProgress)*>(module.address("getUpdateProgress"));
    std::atomic<bool> isOver{false};
    std::atomic<bool> isBounded{true};
    std::atomic<bool> hasThrown{false};
    std::thread asking([&] {
        try {
            do {
                char text[FW_PLUGIN_TEXT_SIZE] = {};
                unsigned int percent = 0;
                version(text);
                isBounded = isBounded && strnlen(text, sizeof(text)) < sizeof(text);
                if (progress != nullptr) {
                    progress(&percent);
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            } while (!isOver);
        } catch (...) {
            hasThrown = true;
        }
    });
    int result = -1;
    std::string trouble;
    try {
        result = update(module);
    } catch (const Judgement& judgement) {
        trouble = judgement.text;
    }
    const int error = errno;
    isOver = true;
    module.tell("a query during an update");
    asking.join();
    require(trouble.empty(), trouble);
    require(!hasThrown, "a query during an update has thrown an exception");
    require(isBounded, "getActiveVersion writes no terminator during an update");
    errno = error;
    requireSuccess(result);
    requireRunning(module, next);
    return "";
}

std::string holdProgress(Module& module)
{
    unsigned int percent = 0;
    module.getUpdateProgress(percent);
    require(percent <= kWhole, "it is " + std::to_string(percent) + " before an update");
    offerNext(module, CALLER_USB_IMAGE);
    requireSuccess(update(module));
    module.getUpdateProgress(percent);
    require(percent == kWhole, "it is " + std::to_string(percent) + " after an update");
    return "";
}

std::string holdNoOffer(Module& module)
{
    const std::string before = module.version();
    const int result = update(module);
    requireFailure(module, result, errno, before);
    return "";
}

}  // namespace quillon::kit
