/// The service's two queues for a test, and a control client at their other end. Once made, neither
/// leaves anything in the recording platform's timeline.
#pragma once

#include <fcntl.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <mqueue.h>
#include <time.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>

#include "fakes/recording-platform.h"
#include "fw-update-mqueue-manager.h"
#include "quillon-service-records.h"
#include "quillon-service.h"

namespace quillon::test {

inline constexpr int kPatienceSeconds = 50;

inline timespec secondsFromNow(int seconds)
{
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    time.tv_sec += seconds;
    return time;
}

/// By the system's clock, since the test may have put one of its own in the place of the other.
inline std::chrono::system_clock::time_point patience()
{
    return std::chrono::system_clock::now() + std::chrono::seconds(kPatienceSeconds);
}

inline std::chrono::system_clock::time_point shortWhile()
{
    return std::chrono::system_clock::now() + std::chrono::milliseconds(100);
}

/// Waits until a line has been logged and traced.
inline bool waitForLine(const std::string& text)
{
    if (!fakes::waitForText(text, std::chrono::seconds(kPatienceSeconds))) {
        return false;
    }
    const auto end = patience();
    while (!fakes::mismatches().empty() && std::chrono::system_clock::now() < end) {
        std::this_thread::yield();
    }
    return true;
}

/// Lets the main task look for the life marker far more often than every ten seconds.
inline void tickOften()
{
    GSource* timer = g_timeout_source_new(5);
    g_source_set_callback(timer, notify_callback, nullptr, nullptr);
    g_source_attach(timer, nullptr);
    g_source_unref(timer);
}

/// Ends the main task's loop as soon as it turns.
inline void quitMainLoop()
{
    g_idle_add(
        [](gpointer) -> gboolean {
            g_main_loop_quit(g_main_loop);
            return FALSE;
        },
        nullptr);
}

/// Whether a queue has that name. /dev/mqueue would tell, but a bare container has none.
inline bool queueIsThere(const char* name)
{
    const mqd_t queue = mq_open(name, O_RDONLY);
    if (queue == -1) {
        return false;
    }
    mq_close(queue);
    return true;
}

/// A queue that somebody else has made.
class Queue
{
public:
    Queue(const char* name, int flags) : descriptor_(mq_open(name, flags))
    {
        if (descriptor_ == -1) {
            throw std::runtime_error(std::string(name) + ": " + std::strerror(errno));
        }
    }
    ~Queue() { mq_close(descriptor_); }
    Queue(const Queue&) = delete;
    Queue& operator=(const Queue&) = delete;

    mqd_t descriptor() const { return descriptor_; }

    /// How many records wait.
    long waiting() const
    {
        mq_attr attributes{};
        mq_getattr(descriptor_, &attributes);
        return attributes.mq_curmsgs;
    }

    void send(const void* bytes, std::size_t size) const
    {
        const timespec end = secondsFromNow(kPatienceSeconds);
        if (mq_timedsend(descriptor_, static_cast<const char*>(bytes), size, 0, &end) != 0) {
            ADD_FAILURE() << "the record cannot be sent: " << std::strerror(errno);
        }
    }

    Record receive() const
    {
        const timespec end = secondsFromNow(kPatienceSeconds);
        Record record;
        unsigned int priority = 0;
        const ssize_t size =
            mq_timedreceive(descriptor_, reinterpret_cast<char*>(record.bytes.data()),
                            record.bytes.size(), &priority, &end);
        if (size != ssize_t{kRecordSize} || priority != 0) {
            ADD_FAILURE() << "no record: size " << size << ", priority " << priority << ", "
                          << std::strerror(errno);
        }
        return record;
    }

private:
    mqd_t descriptor_;
};

/// Opens the queues as the service does before its tasks start. Stands before a Client.
struct OpenQueues
{
    OpenQueues()
    {
        FWUpdateMQManager::getInstance()->setMQName("usb");
        if (!FWUpdateMQManager::getInstance()->getIsReady(true)) {
            throw std::runtime_error("the queues cannot be opened");
        }
        fakes::clear();
    }
};

class Client
{
public:
    Client() : commands_("/fwupdateservice_usb", O_RDWR), replies_("/fwupdatecontrol_usb", O_RDWR)
    {
    }

    const Queue& commands() const { return commands_; }
    const Queue& replies() const { return replies_; }

    void send(const Record& record) const
    {
        commands_.send(record.bytes.data(), record.bytes.size());
    }
    void send(std::int32_t code) const { send(command(code)); }

    /// Sends and takes the next reply.
    Record ask(const Record& record) const
    {
        send(record);
        return replies_.receive();
    }
    Record ask(std::int32_t code) const { return ask(command(code)); }

    /// Whether the service has taken every command and left no reply to any: an idle service
    /// answers this question only after all that was sent before.
    bool everythingIsUnanswered() const { return ask(6) == reply(-5) && replies_.waiting() == 0; }

private:
    Queue commands_;
    Queue replies_;
};

}  // namespace quillon::test
