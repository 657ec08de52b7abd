/// Allocations that fail. Only for a program of its own, with failing-memory.cpp among its sources.
#pragma once

namespace quillon::test {

enum class Failing { kOne, kAllFromThere };

/// Has an allocation by new of this thread fail, counted from 0, and those after it if wanted.
void failAllocation(int number, Failing failing = Failing::kOne);

/// Has allocations succeed again.
/// @return whether one has failed
bool stopFailing();

}  // namespace quillon::test
