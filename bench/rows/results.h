#ifndef QUILLON_BENCH_ROWS_RESULTS_H
#define QUILLON_BENCH_ROWS_RESULTS_H

#include <json/json.h>

#include <functional>
#include <string>
#include <vector>

namespace quillon::bench {

/// What is measured, and how often.
struct BenchPlan
{
    std::string buildFolder;        ///< where the programs are; an absolute path
    bool quick = false;             ///< small images and few rounds: whether all works, no figures
    int rounds = 15;                ///< of everything that takes a second or less
    int longRounds = 7;             ///< of everything that takes longer
    std::vector<std::string> only;  ///< groups of rows; empty: all
};

/// Which side of its limit a figure has to be on.
enum class Sense { kAtLeast, kAtMost };

/// One line of the table: a figure, mostly a ratio of two medians, and its limit.
struct Row
{
    std::string work;
    std::string against;
    std::string figure;  ///< "times faster", "ms a module" and so on
    double measured = 0;
    Sense sense = Sense::kAtLeast;
    double limit = 0;
    std::string detail;  ///< the two medians behind it, for people
};

bool isMet(const Row& row);
Json::Value toJson(const Row& row);

/// One thing to measure: runs it once and returns what it took.
using Measurement = std::function<double()>;

/// Measures several things in turns, every other round the other way round, so that whatever the
/// machine does besides meets all of them alike. Each is run once before, which does not count.
/// @return the samples of each
std::vector<std::vector<double>> inTurns(int rounds, const std::vector<Measurement>& measurements);

/// A number with so many decimals.
std::string fixed(double value, int decimals);

/// A variable of our environment, and so of the processes that are started meanwhile.
class ScopedVariable
{
public:
    ScopedVariable(const char* name, const std::string& value);
    ~ScopedVariable();
    ScopedVariable(const ScopedVariable&) = delete;
    ScopedVariable& operator=(const ScopedVariable&) = delete;

private:
    const char* name_;
};

constexpr double kMebibyte = 1024.0 * 1024.0;

}  // namespace quillon::bench

#endif
