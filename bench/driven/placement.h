#ifndef QUILLON_BENCH_DRIVEN_PLACEMENT_H
#define QUILLON_BENCH_DRIVEN_PLACEMENT_H

#include <sys/types.h>

#include <vector>

namespace quillon::bench {

/// The processors that this process may run on.
std::vector<int> processors();

/// Keeps every thread of a process on one processor. Threads that it starts later stay there too.
/// @throws std::system_error when that is not possible
void placeOn(pid_t process, int processor);

/// Keeps the calling thread on one processor, until the end of the object's life.
class OnProcessor
{
public:
    /// @throws std::system_error when that is not possible
    explicit OnProcessor(int processor);
    ~OnProcessor();
    OnProcessor(const OnProcessor&) = delete;
    OnProcessor& operator=(const OnProcessor&) = delete;

private:
    std::vector<int> before_;
};

}  // namespace quillon::bench

#endif
