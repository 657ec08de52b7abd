#ifndef QUILLON_BENCH_ROWS_ROUND_TRIPS_H
#define QUILLON_BENCH_ROWS_ROUND_TRIPS_H

#include <vector>

#include "driven/records.h"

namespace quillon::bench {

/// Asks the same question so many times, one after the other.
/// @return microseconds from each question to its answer
std::vector<double> roundTrips(RecordChannel& channel, MQCommand command, int count);

}  // namespace quillon::bench

#endif
