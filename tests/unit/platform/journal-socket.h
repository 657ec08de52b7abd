#pragma once

#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

/// The fields of one journal entry, by name.
using JournalEntry = std::map<std::string, std::string>;

/// A journal's socket at the journal's own path, to which the journal's own client library writes.
/// A thread reads it, since a writer waits for a journal that does not. Meant for a device without
/// a journal; see available().
class JournalSocket
{
public:
    /// Throws std::system_error.
    JournalSocket();
    /// Closes the socket and takes its file away.
    ~JournalSocket();
    JournalSocket(const JournalSocket&) = delete;
    JournalSocket& operator=(const JournalSocket&) = delete;

    /// Whether no other journal has the path.
    static bool available();

    /// Closes the socket and leaves its file, as a journal that has crashed does.
    void crash();

    /// Waits until so many entries have arrived, at most some seconds, and hands all that have
    /// over.
    std::vector<JournalEntry> take(std::size_t atLeast = 1);

private:
    void readUntilCrash();

    bool madeDirectory_ = false;
    int socket_;
    int end_;  // readable when the thread is to end
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<JournalEntry> entries_;
    std::thread reader_;
};
