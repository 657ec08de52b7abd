#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace quillon {

/// Brings files into the page cache in the order in which they are about to be read, so that a slow
/// medium does not wait while one of them is verified, deciphered or flashed.
///
/// A thread of the object's own reads those after the present one, page by page. Whoever reads the
/// files notices nothing but the speed. What cannot be opened or read, or is no regular file, is
/// passed over; without a thread, or with fewer than two files, nothing is read ahead. Holds the
/// file open that it has begun with. Keeps errno. Thread: one at a time.
class ReadAhead
{
public:
    /// A sixteenth of the machine's memory, 32 MiB at most.
    static constexpr std::int64_t kShareOfMemory = -1;

    /// @param paths  in the order of reading; empty ones are passed over
    /// @param window  how many bytes it may get ahead of the file that is being read
    explicit ReadAhead(std::vector<std::string> paths, std::int64_t window = kShareOfMemory);

    /// Waits for the thread, which is done after a page, unless the medium hangs.
    ~ReadAhead();
    ReadAhead(const ReadAhead&) = delete;
    ReadAhead& operator=(const ReadAhead&) = delete;

    /// Says which file is read next. The ones before it are done with.
    /// @param index  among the paths, not less than last time
    void reach(std::size_t index);

private:
    void fetchAll();
    void fetch(std::size_t index);
    bool awaitRoom(std::size_t index);
    void count(std::size_t index, std::int64_t bytes);

    const std::vector<std::string> paths_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::size_t reached_ = 0;
    bool isOver_ = false;
    std::int64_t window_;
    std::int64_t ahead_ = 0;             ///< bytes fetched of the files after the one that is read
    std::vector<std::int64_t> fetched_;  ///< bytes fetched of each file
    std::thread thread_;
};

}  // namespace quillon
