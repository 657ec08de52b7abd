#include "platform/linux/inhibitor.h"

#include <fcntl.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <tuple>
#include <utility>

#include "platform/log/platform-log.h"

namespace quillon {

namespace {

using std::chrono::microseconds;
using std::chrono::steady_clock;

constexpr std::chrono::seconds kLongestWait(5);

// Closed without flushing, which would wait for a bus that takes nothing.
using UniqueBus = std::unique_ptr<sd_bus, ReleaseWith<&sd_bus_close_unref>>;

// Asked for one by one: logind puts one question to polkit a call, so that a user who may have each
// of them is refused all of them together.
constexpr std::array<const char*, 3> kBlocked = {"shutdown", "sleep", "idle"};
static_assert(std::tuple_size_v<Inhibitor> == kBlocked.size());

/// What has become of one call.
struct Answer
{
    bool arrived = false;
    int result = 0;  // below 0: an errno value
    UniqueFd fd;
    char reason[256] = "";
};

using Answers = std::array<Answer, kBlocked.size()>;

int onAnswer(sd_bus_message* message, void* userData, sd_bus_error* /*error*/)
{
    auto& answer = *static_cast<Answer*>(userData);
    answer.arrived = true;
    const sd_bus_error* refusal = sd_bus_message_get_error(message);
    if (refusal != nullptr) {
        answer.result = -sd_bus_message_get_errno(message);
        const char* text = refusal->message != nullptr ? refusal->message : refusal->name;
        std::strncpy(answer.reason, text, sizeof answer.reason - 1);
        return 0;
    }
    int received = -1;
    answer.result = sd_bus_message_read(message, "h", &received);
    if (answer.result < 0) {
        return 0;
    }
    // The one received belongs to the message.
    answer.fd = UniqueFd(fcntl(received, F_DUPFD_CLOEXEC, 0));
    answer.result = answer.fd ? 0 : -errno;
    return 0;
}

bool haveAllArrived(const Answers& answers)
{
    return std::all_of(answers.begin(), answers.end(),
                       [](const Answer& answer) { return answer.arrived; });
}

// A bus that accepts and then says nothing must not hold up the update. sd_bus_call would wait much
// longer than its time-out for such a bus to say hello.
int waitForAnswers(sd_bus* bus, const Answers& answers)
{
    const auto deadline = steady_clock::now() + kLongestWait;
    while (!haveAllArrived(answers)) {
        const int progress = sd_bus_process(bus, nullptr);
        if (progress < 0) {
            return progress;
        }
        if (progress > 0) {
            continue;
        }
        const auto left =
            std::chrono::duration_cast<microseconds>(deadline - steady_clock::now()).count();
        if (left <= 0) {
            return -ETIMEDOUT;
        }
        const int waited = sd_bus_wait(bus, static_cast<std::uint64_t>(left));
        if (waited < 0 && waited != -EINTR) {
            return waited;
        }
    }
    return 0;
}

int askLogind(Answers& answers)
{
    sd_bus* opened = nullptr;
    int result = sd_bus_open_system(&opened);
    if (result < 0) {
        return result;
    }
    const UniqueBus bus(opened);
    for (std::size_t i = 0; i < kBlocked.size(); ++i) {
        result = sd_bus_call_method_async(
            bus.get(), nullptr, "org.freedesktop.login1", "/org/freedesktop/login1",
            "org.freedesktop.login1.Manager", "Inhibit", onAnswer, &answers[i], "ssss", kBlocked[i],
            "quillon", "The firmware of the device's components is being updated", "block");
        if (result < 0) {
            return result;
        }
    }
    return waitForAnswers(bus.get(), answers);
}

void sayNone(const char* reason)
{
    PLATFORM_LOGE("logind gives no power lock, the update runs without one: %s", reason);
}

}  // namespace

std::optional<Inhibitor> takeInhibitor()
{
    Answers answers;
    const int result = askLogind(answers);
    if (result < 0) {
        sayNone(std::strerror(-result));
        return std::nullopt;
    }
    Inhibitor inhibitor;
    for (std::size_t i = 0; i < answers.size(); ++i) {
        if (answers[i].result < 0) {
            sayNone(answers[i].reason[0] != '\0' ? answers[i].reason
                                                 : std::strerror(-answers[i].result));
            return std::nullopt;
        }
        inhibitor[i] = std::move(answers[i].fd);
    }
    return inhibitor;
}

}  // namespace quillon
