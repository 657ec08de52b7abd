#include "fake-logind.h"
#include "support/wait.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

using quillon::test::waitFor;

constexpr std::uint64_t kTick = 20000;  // microseconds

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wold-style-cast"  // the library's macros
const sd_bus_vtable kManager[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Inhibit", "ssss", "h", FakeLogind::onInhibit, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};
#pragma GCC diagnostic pop

}  // namespace

FakeLogind::FakeLogind(Manner manner) : manner_(manner)
{
    EXPECT_GE(sd_bus_open_system(&bus_), 0);
    EXPECT_GE(sd_bus_add_object_vtable(bus_, nullptr, "/org/freedesktop/login1",
                                       "org.freedesktop.login1.Manager", kManager, this),
              0);
    EXPECT_GE(sd_bus_request_name(bus_, "org.freedesktop.login1", 0), 0);
    serving_ = std::thread(&FakeLogind::serve, this);
}

FakeLogind::~FakeLogind()
{
    ending_ = true;
    serving_.join();
    sd_bus_flush_close_unref(bus_);
    for (const int fd : pipes_) {
        close(fd);
    }
}

void FakeLogind::serve()
{
    while (!ending_) {
        const int progress = sd_bus_process(bus_, nullptr);
        if (progress < 0) {
            return;
        }
        if (progress == 0) {
            sd_bus_wait(bus_, kTick);
        }
    }
}

int FakeLogind::onInhibit(sd_bus_message* message, void* self, sd_bus_error* error)
{
    return static_cast<FakeLogind*>(self)->inhibit(message, error);
}

int FakeLogind::inhibit(sd_bus_message* message, sd_bus_error* error)
{
    const char* what = nullptr;
    const char* who = nullptr;
    const char* why = nullptr;
    const char* mode = nullptr;
    const int result = sd_bus_message_read(message, "ssss", &what, &who, &why, &mode);
    if (result < 0) {
        return result;
    }
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        asked_.push_back({what, who, why, mode});
    }
    Manner manner = manner_;
    if (manner == Manner::kRefuseIdle) {
        manner = std::strcmp(what, "idle") == 0 ? Manner::kRefuse : Manner::kGive;
    }
    switch (manner) {
        case Manner::kRefuse:
            return sd_bus_error_set(error, "org.freedesktop.DBus.Error.AccessDenied",
                                    "not for this user");
        case Manner::kKeepSilent:
            return 1;
        case Manner::kGiveNoDescriptor:
            return sd_bus_reply_method_return(message, "s", "no descriptor");
        default:
            return giveInhibitor(message);
    }
}

int FakeLogind::giveInhibitor(sd_bus_message* message)
{
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
        return -errno;
    }
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        pipes_.push_back(ends[0]);
    }
    const int result = sd_bus_reply_method_return(message, "h", ends[1]);
    sd_bus_flush(bus_);  // the message has a copy of its own, which is not to be taken for a holder
    close(ends[1]);
    return result;
}

std::vector<FakeLogind::Asked> FakeLogind::asked() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return asked_;
}

std::size_t FakeLogind::countHeld(std::size_t first, std::size_t count) const
{
    std::size_t held = 0;
    for (std::size_t i = first; i < first + count; ++i) {
        pollfd polled = {pipes_[i], POLLIN, 0};
        held += poll(&polled, 1, 0) == 0 ? 1 : 0;  // its end is told as POLLHUP
    }
    return held;
}

std::size_t FakeLogind::countHeld(std::size_t lock) const
{
    const std::lock_guard<std::mutex> guard(mutex_);
    const std::size_t first = lock * kInhibitorsALock;
    if (first + kInhibitorsALock > pipes_.size()) {
        ADD_FAILURE() << "no lock " << lock << " was given";
        return 0;
    }
    return countHeld(first, kInhibitorsALock);
}

void FakeLogind::waitForPartsReleased() const
{
    const std::lock_guard<std::mutex> guard(mutex_);
    ASSERT_FALSE(pipes_.empty()) << "no inhibitor was given";
    waitFor("every part's release", [this] { return countHeld(0, pipes_.size()) == 0; });
}

bool FakeLogind::isHeld(std::size_t lock) const
{
    const std::size_t held = countHeld(lock);
    EXPECT_TRUE(held == 0 || held == kInhibitorsALock) << held << " inhibitors of lock " << lock;
    return held > 0;
}

void FakeLogind::waitForRelease(std::size_t lock) const
{
    waitFor("the release of lock " + std::to_string(lock),
            [this, lock] { return countHeld(lock) == 0; });
}
