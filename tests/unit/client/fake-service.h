/// An update service for client tests: the real two queues, answered by a thread to a script.
#pragma once

#include <fw-update-mqdata.h>
#include <mqueue.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

/// Behaves as the service does unless told otherwise. Owns the queues: they are made anew by the
/// constructor and removed by end() or the destructor.
///
/// Thread: handlers run on the thread of the service; everything else is for the test's.
class FakeService
{
public:
    struct Answer
    {
        int result;
        int value;
    };
    struct Received
    {
        MQData record;
        std::chrono::steady_clock::time_point time;
    };
    using Handler = std::function<void(const MQData& request)>;

    explicit FakeService(long messageSize = sizeof(MQData));
    ~FakeService();
    FakeService(const FakeService&) = delete;
    FakeService& operator=(const FakeService&) = delete;

    /// Begins to take commands. Before it the queues exist, but nobody reads them, as after a
    /// crash.
    void serve();
    /// Stops serving and removes the queues, as an orderly end of the service does.
    void end();

    // The script; to be written before serve().
    void answerEstimate(int result, int seconds) { estimate_ = {result, seconds}; }
    /// What the first estimate is answered with after somebody was told how a run ended; until then
    /// that nothing needs an update.
    void answerEstimateAfterRun(int result, int seconds) { afterRun_ = {result, seconds}; }
    /// What progress queries are answered with before a start; when used up, "not running".
    void answerBeforeStart(std::deque<Answer> answers) { idle_ = std::move(answers); }
    /// What progress queries are answered with after a start; when used up, "not running". The
    /// client's own query right behind the start uses no "running" up.
    void answerAfterStart(std::deque<Answer> answers) { run_ = std::move(answers); }
    /// Takes the place of the usual behaviour for one command.
    void on(int command, Handler handler)
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        handlers_[command] = std::move(handler);
    }

    // For handlers, and for tests that leave replies lying about.
    void reply(int result, int value = 0);
    void replyRaw(const void* bytes, std::size_t size);
    /// Ends every wait for room among the replies, for good.
    void stopSending() { stop_ = true; }
    /// Keeps a handler from returning before the service ends.
    void holdStill() const;
    /// Puts a command into the service's queue without waiting for anything, as a client does that
    /// is killed then.
    void leaveCommand(int command);

    /// @return everything received so far
    std::vector<Received> received() const;
    /// @return the command codes received so far
    std::vector<int> commands() const;
    /// Waits until `count` commands of that code were received.
    /// @return false after ten seconds
    bool waitFor(int command, std::size_t count = 1) const;
    /// @return the directory as the service sees it
    std::string directory() const;
    /// @return how many replies nobody has read
    long unreadReplies() const;

private:
    void run();
    void handle(const MQData& request);
    void copyPath(const MQData& request);

    const long messageSize_;
    mqd_t commands_ = -1;
    mqd_t replies_ = -1;
    std::atomic<bool> stop_{false};
    std::thread thread_;

    Answer estimate_{MQ_RESULT_ACCEPTED, 10};
    Answer afterRun_{MQ_RESULT_REFUSED, 0};
    bool endTold_ = false;
    std::deque<Answer> idle_;
    std::deque<Answer> run_;
    bool started_ = false;
    bool justStarted_ = false;
    std::map<int, Handler> handlers_;

    mutable std::mutex mutex_;
    char path_[128] = {};
    std::vector<Received> received_;
};
