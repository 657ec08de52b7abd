#pragma once

#include <systemd/sd-bus.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

/// Plays logind on the system bus: gives inhibitors and sees whether they are still held. A power
/// lock is three of them, given one after another.
class FakeLogind
{
public:
    static constexpr std::size_t kInhibitorsALock = 3;

    enum class Manner { kGive, kRefuse, kRefuseIdle, kKeepSilent, kGiveNoDescriptor };

    struct Asked
    {
        std::string what;
        std::string who;
        std::string why;
        std::string mode;
    };

    explicit FakeLogind(Manner manner = Manner::kGive);
    ~FakeLogind();
    FakeLogind(const FakeLogind&) = delete;
    FakeLogind& operator=(const FakeLogind&) = delete;

    void setManner(Manner manner) { manner_ = manner; }
    /// All calls until now.
    std::vector<Asked> asked() const;
    /// Whether somebody still has the lock of that number, from 0 on; half a lock fails the test.
    bool isHeld(std::size_t lock) const;
    /// Waits until nobody has any of its inhibitors; fails the test after ten seconds.
    void waitForRelease(std::size_t lock) const;
    /// The same for every inhibitor that was given, whole locks or not.
    void waitForPartsReleased() const;

    static int onInhibit(sd_bus_message* message, void* self, sd_bus_error* error);

private:
    std::size_t countHeld(std::size_t first, std::size_t count) const;
    std::size_t countHeld(std::size_t lock) const;
    int inhibit(sd_bus_message* message, sd_bus_error* error);
    int giveInhibitor(sd_bus_message* message);
    void serve();

    std::atomic<Manner> manner_;
    std::atomic<bool> ending_{false};
    mutable std::mutex mutex_;
    std::vector<Asked> asked_;
    std::vector<int> pipes_;  // the reading ends of what was given
    sd_bus* bus_ = nullptr;
    std::thread serving_;
};
