#include "inhibitor.h"

#include <fcntl.h>
#include <systemd/sd-bus.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>

#include "platform-log.h"

namespace quillon {

namespace {

using std::chrono::microseconds;
using std::chrono::steady_clock;

constexpr std::chrono::seconds kLongestWait(5);

struct CloseBus
{
    // Without flushing, which would wait for a bus that takes nothing.
    void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
};
using UniqueBus = std::unique_ptr<sd_bus, CloseBus>;

/// What has become of the one call.
struct Answer
{
    bool arrived = false;
    int result = 0;  // below 0: an errno value
    UniqueFd fd;
    char reason[256] = "";
};

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

// A bus that accepts and then says nothing must not hold up the update. sd_bus_call would wait much
// longer than its time-out for such a bus to say hello.
int waitForAnswer(sd_bus* bus, const Answer& answer)
{
    const auto deadline = steady_clock::now() + kLongestWait;
    while (!answer.arrived) {
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
    return answer.result;
}

int askLogind(Answer& answer)
{
    sd_bus* opened = nullptr;
    int result = sd_bus_open_system(&opened);
    if (result < 0) {
        return result;
    }
    const UniqueBus bus(opened);
    result = sd_bus_call_method_async(
        bus.get(), nullptr, "org.freedesktop.login1", "/org/freedesktop/login1",
        "org.freedesktop.login1.Manager", "Inhibit", onAnswer, &answer, "ssss",
        "shutdown:sleep:idle", "quillon",
        "The firmware of the device's components is being updated", "block");
    return result < 0 ? result : waitForAnswer(bus.get(), answer);
}

}  // namespace

UniqueFd takeInhibitor()
{
    Answer answer;
    const int result = askLogind(answer);
    if (result < 0) {
        PLATFORM_LOGE("logind gives no power lock, the update runs without one: %s",
                      answer.reason[0] != '\0' ? answer.reason : std::strerror(-result));
        return UniqueFd();
    }
    return std::move(answer.fd);
}

}  // namespace quillon
