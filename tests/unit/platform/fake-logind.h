#ifndef QUILLON_TESTS_UNIT_PLATFORM_FAKE_LOGIND_H
#define QUILLON_TESTS_UNIT_PLATFORM_FAKE_LOGIND_H

#include <systemd/sd-bus.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

/// Plays logind on the system bus: gives inhibitors and sees whether they are still held.
class FakeLogind
{
public:
    enum class Manner { kGive, kRefuse, kKeepSilent, kGiveNoDescriptor };

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
    /// Whether somebody still has the inhibitor that the call of that number was given, from 0 on.
    bool isHeld(std::size_t number) const;
    /// Waits until nobody has it any more; fails the test after ten seconds.
    void waitForRelease(std::size_t number) const;

    static int onInhibit(sd_bus_message* message, void* self, sd_bus_error* error);

private:
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

#endif
